#ifndef KV_SERVER_LOCAL_COMMANDS_H
#define KV_SERVER_LOCAL_COMMANDS_H

#include <string>

#include "batch.h"
#include "command_table.h"
#include "settings.h"

// Commands that need neither keys nor a client's state: PING, ECHO, SELECT, COMMAND.
// Appends the reply; vecArguments start with the command's name.
void RunLocalCommand(const Command_t& stCommand, const Arguments_t& vecArguments,
                     std::string& strOut);

// CONFIG GET with any number of patterns, and the error of CONFIG SET.
void RunConfigCommand(const Arguments_t& vecArguments, const Settings_t& stSettings,
                      std::string& strOut);

// The errors of a request that is not run.
void AppendUnknownCommand(std::string& strOut, const Arguments_t& vecArguments);
void AppendWrongArity(std::string& strOut, const Command_t& stCommand);

// Why these arguments can not be run: a key too long or with a zero byte, options that are
// unknown. Empty when they can.
std::string CheckArguments(const Command_t& stCommand, const Arguments_t& vecArguments,
                           const Settings_t& stSettings);

#endif
