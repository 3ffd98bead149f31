#include "time_util.h"

#include <sys/time.h>

namespace {

// What the formatted second depends on: the clock, and the zone that tzset() may have changed.
struct Second_t {
  time_t iTime;
  long iZone;
  int iDaylight;
};

bool operator==(const Second_t& stLeft, const Second_t& stRight) {
  return stLeft.iTime == stRight.iTime && stLeft.iZone == stRight.iZone &&
         stLeft.iDaylight == stRight.iDaylight;
}

size_t FormatSecond(time_t iTime, char* pBuffer, size_t iSize) {
  tm stLocal{};
  localtime_r(&iTime, &stLocal);  // unlike localtime() it does not look at the zone file again
  return strftime(pBuffer, iSize, "[%Y-%m-%d %H:%M:%S", &stLocal);
}

void AppendMilliseconds(char* pEnd, int iMilliseconds) {
  *pEnd++ = ',';
  *pEnd++ = static_cast<char>('0' + iMilliseconds / 100);
  *pEnd++ = static_cast<char>('0' + iMilliseconds / 10 % 10);
  *pEnd++ = static_cast<char>('0' + iMilliseconds % 10);
  *pEnd++ = ']';
  *pEnd = '\0';
}

}  // namespace

const char* GenerateTimeString() {
  static char szText[128];
  static size_t iLength = 0;
  static Second_t stFormatted{};

  timeval stNow{};
  gettimeofday(&stNow, nullptr);
  if (iLength == 0 || !(stFormatted == Second_t{stNow.tv_sec, timezone, daylight})) {
    iLength = FormatSecond(stNow.tv_sec, szText, sizeof(szText));
    stFormatted = {stNow.tv_sec, timezone, daylight};
  }
  AppendMilliseconds(szText + iLength, static_cast<int>(stNow.tv_usec / 1000));
  return szText;
}

int timediff_month(time_t /*iFrom*/, time_t /*iTo*/) { return 0; }
