#ifndef KV_SERVER_SERVER_VERSION_H
#define KV_SERVER_SERVER_VERSION_H

const char SERVER_VERSION[] = "1.0.0";

// The server whose replies ours are like; clients choose their commands by it.
const char REDIS_VERSION[] = "7.0.15";

#endif
