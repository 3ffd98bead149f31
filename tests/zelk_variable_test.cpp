#include "zelk_variable.h"

#include <gtest/gtest.h>

#include <type_traits>

namespace {

int SendRequest(uint32_t iNumber, void* pData) {
  return static_cast<int>(iNumber) + *static_cast<int*>(pData);
}
int SendResponse(void* pData, uint32_t iNumber) {
  return static_cast<int>(iNumber) - *static_cast<int*>(pData);
}
int PushMessage(const request_object_t& stRequest) {
  return static_cast<int>(stRequest.iStateMachineID);
}

TEST(ZelkVariableTest, EverythingIsUnsetUntilTheHostSetsIt) {
  EXPECT_EQ(nullptr, g_pLog);
  EXPECT_EQ(nullptr, g_pStatLog);
  EXPECT_EQ(nullptr, g_pNow);
  EXPECT_EQ(nullptr, g_pWorkerIndex);
  EXPECT_EQ(nullptr, g_pConfig);
  EXPECT_EQ(nullptr, ptrSendInternalRequest);
  EXPECT_EQ(nullptr, ptrSendInternalResponse);
  EXPECT_EQ(nullptr, ptrPushMessageQueue);
}

TEST(ZelkVariableTest, RunFlagStartsTrue) { EXPECT_TRUE(g_bRunFlag); }

TEST(ZelkVariableTest, HooksCarryTheHostsFunctions) {
  int iData = 5;
  ptrSendInternalRequest = SendRequest;
  ptrSendInternalResponse = SendResponse;
  ptrPushMessageQueue = PushMessage;
  EXPECT_EQ(12, ptrSendInternalRequest(7, &iData));
  EXPECT_EQ(2, ptrSendInternalResponse(&iData, 7));
  EXPECT_EQ(42, ptrPushMessageQueue(request_object_t{42, nullptr, nullptr, nullptr}));
  ptrSendInternalRequest = nullptr;
  ptrSendInternalResponse = nullptr;
  ptrPushMessageQueue = nullptr;
}

}  // namespace
