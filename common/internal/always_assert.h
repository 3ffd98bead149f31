// assert() for invariants that hold in every build type: a Release build defines NDEBUG, which
// would remove them. <assert.h> may be included again and follows NDEBUG each time, so include
// this header last.
#undef NDEBUG
#include <assert.h>
