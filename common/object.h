#ifndef ZELK_COMMON_OBJECT_H
#define ZELK_COMMON_OBJECT_H

// Root of the library's classes: objects that can be destroyed and shown through a base pointer.
//
// Holds no data; usable from any process and thread.
class Object {
 public:
  Object() = default;
  virtual ~Object();

  // Writes the object's state to the open descriptor iFD, one line per field: the field's name,
  // an equals sign, the value in double quotes. A class with nothing to show writes nothing.
  // Results of the writes are ignored.
  virtual void Dump(int iFD) = 0;

 protected:
  // Copied and moved only as part of a derived class that allows it.
  Object(const Object&) = default;
  Object& operator=(const Object&) = default;
};

#endif
