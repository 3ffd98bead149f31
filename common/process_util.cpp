#include "zelk_variable.h"

// Defined beside the signal handler that clears it.
bool g_bRunFlag = true;
