#ifndef ZELK_COMMON_INTERNAL_XML_MEMORY_WATCH_H
#define ZELK_COMMON_INTERNAL_XML_MEMORY_WATCH_H

#include <libxml/xmlerror.h>

// Tells whether libxml2 has lacked memory. It goes on without what it had none for and may return
// no error: an attribute without its value, half a document, a search that has found nothing. It
// notes the fact, though, as its last error, which a new watch removes.
class XmlMemoryWatch {
 public:
  XmlMemoryWatch() { xmlResetLastError(); }

  static bool WasLacking() {
    const xmlError* const pError = xmlGetLastError();
    return pError != nullptr && pError->code == XML_ERR_NO_MEMORY;
  }
};

#endif
