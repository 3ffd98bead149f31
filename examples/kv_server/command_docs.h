#ifndef KV_SERVER_COMMAND_DOCS_H
#define KV_SERVER_COMMAND_DOCS_H

#include <string>

#include "batch.h"
#include "command_table.h"

// COMMAND and its subcommands: what clients ask to learn which commands there are and what to show
// when somebody types one.
void RunCommandCommand(const Arguments_t& vecArguments, std::string& strOut);

// Appends the arguments of a command as COMMAND DOCS describes them, read from words such as
// "key", "[key...]" and "[NX|XX]". In brackets: optional. Dots: may be repeated. Capitals: a word
// as it stands, or a choice of such. A plus sign: arguments that belong together, "key+value...".
void AppendSyntax(std::string& strOut, std::string_view strSyntax);

#endif
