#ifndef KV_SERVER_MIRROR_H
#define KV_SERVER_MIRROR_H

#include <cstdint>
#include <string>

#include "key_store.h"
#include "settings.h"

// A copy of all keys in a table of a MySQL or MariaDB database, for the day on which the machine is
// lost: the server writes it after each save, and reads it when it finds neither tables nor dumps.
//
// One table for all workers: a row tells by its key whose it is, for whatever number of workers.
// Each worker changes its rows in one transaction, so the table has of each of them one whole save.
// A database has one server at a time; the keys of another one would be deleted.
//
// Every call makes a connection of its own and closes it, and blocks for as long as the database
// pleases.

struct MirrorStat_t {
  uint64_t iKeys;     // of the dump
  uint64_t iWritten;  // rows that were new or had changed
  uint64_t iDeleted;
};

// Makes the worker's rows those of its dump, and the table when there is none. Empty, or what went
// wrong: then the rows are as before. Keeps about 100 bytes for each row of the worker meanwhile.
std::string WriteMirror(const Settings_t& stSettings, const TableMark_t& stMark,
                        const std::string& strDump, MirrorStat_t& stStat);

// Adds the worker's rows to a store, without those whose time is over; iKeys counts them. Without
// a table there are none. Empty, or what went wrong; then some keys may be in. A database that is
// silent for save.timeout ends the process with the exit code EXIT_TABLE and a line on stderr.
std::string LoadMirror(const Settings_t& stSettings, const TableMark_t& stMark, KeyStore& stStore,
                       uint64_t& iKeys);

#endif
