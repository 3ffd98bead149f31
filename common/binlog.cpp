#include "binlog.h"

Binlog::~Binlog() = default;

int Binlog::Write(const char* /*pData*/, int /*iSize*/) { return 0; }

int Binlog::Read(binlog_item_t* /*pItems*/, int /*iCount*/) { return 0; }
