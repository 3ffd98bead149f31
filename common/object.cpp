#include "object.h"

// Out of line, so that the class's virtual table has one home.
Object::~Object() = default;
