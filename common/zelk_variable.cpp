#include "zelk_variable.h"

Log* g_pLog = nullptr;
Log* g_pStatLog = nullptr;
timeval* g_pNow = nullptr;
int* g_pWorkerIndex = nullptr;
Config* g_pConfig = nullptr;

SendInternalRequest_t ptrSendInternalRequest = nullptr;
SendInternalResponse_t ptrSendInternalResponse = nullptr;
PushMessageQueue_t ptrPushMessageQueue = nullptr;
