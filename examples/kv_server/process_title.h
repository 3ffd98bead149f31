#ifndef KV_SERVER_PROCESS_TITLE_H
#define KV_SERVER_PROCESS_TITLE_H

#include <string>

// The process's name in listings such as ps.

// To be called once by main(), when it has read its arguments: titles are written over them.
void InitTitle(int argc, char** argv);

// "master" shows as "kv_server: master". Without InitTitle() nothing happens.
void SetTitle(const std::string& strRole);

#endif
