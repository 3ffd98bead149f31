#ifndef KV_SERVER_CONFIG_FILES_H
#define KV_SERVER_CONFIG_FILES_H

#include <string>

#include "settings.h"

// The settings' way in from files and out again. Each returns an empty string, or what is wrong,
// naming the file, the key and the value.

// The XML file: an element per part of a key, below a root of any name:
//   <kv_server><server><listen>127.0.0.1:6399</listen><workers>2</workers></server></kv_server>
// Values may hold $(VARIABLE) of the environment and @(other.key); <include> names further files
// by absolute patterns, which may match nothing; a single file must be there. @(config.dir) is the
// directory of the file itself.
std::string LoadConfigFile(Settings_t& stSettings, const std::string& strPath);

// The INI file of what operators change often. Values hold no blanks.
//   save = 900:1              after 900 seconds with at least 1 change; may be repeated
//   include = /etc/kv/*.ini   further files
//   [rename]
//   config = admin-config     the command by its new name only
//   [disable]
//   flushall                  a command that nobody may run
std::string LoadOperatorFile(Settings_t& stSettings, const std::string& strPath);

// The settings as a file that LoadConfigFile() reads back.
std::string ConfigText(const Settings_t& stSettings);

#endif
