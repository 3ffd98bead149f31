#ifndef ZELK_COMMON_PROCESS_UTIL_H
#define ZELK_COMMON_PROCESS_UTIL_H

#include <cstdarg>
#include <string>
#include <vector>

// What a server process does about itself and about other processes: its title in process
// listings, the list of running processes, shell commands with their output, signals.
//
// Everything is for the main thread. Failures are returned; only ChangeProcessTitle() called too
// early ends the process.

// One running process, as ListProcesses() found it.
struct Process {
  unsigned int iPID = 0;
  std::string strCMD;  // the first element of its command line: the program as it was started
};

// The title is the text of argv[0], which ps and /proc/<pid>/cmdline show. It may grow over the
// memory that held the arguments and the environment when the program started.

// Copies the environment to memory of its own, which is never freed, and notes the end of the area
// that becomes free by that. To be called once, with main()'s own parameters and before anything
// changes arguments or environment: pointers that getenv() has given out before see titles later.
void InitProcessTitle(int argc, char** argv);

// Replaces the text of argv[0]. The other arguments are moved behind it, with their pointers, and
// stay readable; a title that would push them out of the area is cut. pTitle is plain text, not a
// format, and lies outside the area.
//
// What is behind the arguments is deliberately left as it was, so a listing can show remains of a
// longer title; pad with blanks where that disturbs. Once the text has outgrown the original
// arguments, the system lists the title alone. Calling it before InitProcessTitle() is a failed
// assertion.
void ChangeProcessTitle(int argc, char** argv, const char* pTitle);

// Fills pOut with up to iMax processes whose command passes the filter (a POSIX extended regular
// expression, see SimpleFilter; null or one that does not compile lets all pass), in the order of
// /proc. Only the program's name as it was started is looked at, at most 1024 bytes of it, not the
// arguments; a process that has emptied its title has the command "". Kernel threads, zombies and
// processes that vanish meanwhile are skipped.
// Returns how many entries were filled; the others are untouched.
int ListProcesses(Process* pOut, int iMax, const char* pFilter);

// Run a command with "/bin/sh -c" and wait for its end. The command is made with a printf format
// and cut after 1023 bytes: quote what comes from outside. It has this process's standard input
// and error; its standard output is collected into vecLines, which is emptied first. A line keeps
// its newline (the pattern "abc$" never matches one), and one of 2048 bytes or more arrives in
// pieces of 2047.
//
// Returns the exit code (0 too for a shell that a signal killed), or -1 when the command could not
// be started: vecLines stays as it was, and iError is errno. iError is also set to an exit code
// that is not 0; after 0 it is left alone, so set it beforehand.
//
// In a process that reaps its children in a signal handler (see signal_init()) the handler takes
// the shell's exit code, and result and iError are 255 whenever it was faster.
int vExecuteCommand(int& iError, std::vector<std::string>& vecLines, const char* pFormat,
                    va_list sAp) __attribute__((format(printf, 3, 0)));
int ExecuteCommand(int& iError, std::vector<std::string>& vecLines, const char* pFormat, ...)
    __attribute__((format(printf, 3, 4)));

// The same, keeping the lines that pass the filter or, with Invert, those that do not. Two things
// differ: vecLines is emptied also when the command could not be started, and it is empty after a
// filter that does not compile (the command has run all the same).
int ExecuteCommandWithFilter(int& iError, std::vector<std::string>& vecLines, const char* pFilter,
                             const char* pFormat, ...) __attribute__((format(printf, 4, 5)));
int ExecuteCommandWithInvert(int& iError, std::vector<std::string>& vecLines, const char* pFilter,
                             const char* pFormat, ...) __attribute__((format(printf, 4, 5)));

// Installs signal_handle() for SIGINT, SIGTERM, SIGUSR1, SIGUSR2 and SIGCHLD. Calls that a signal
// interrupts are restarted where the system can do so.
void signal_init();

// The handler: SIGINT and SIGTERM set g_bRunFlag to false; SIGCHLD reaps every ended child and
// drops its status, so a host that needs the exit code of a child can not have it from waitpid();
// all else is ignored. errno is kept.
void signal_handle(int iSignal);

#endif
