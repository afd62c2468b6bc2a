// The subcommands of `tavrel`. Each takes its own arguments, its name being the first of them, and
// returns the exit status.
#ifndef TAVREL_TOOLS_TAVREL_COMMAND_H
#define TAVREL_TOOLS_TAVREL_COMMAND_H

namespace tavrel::tools {

constexpr int kUsage = 64;  // the command line is wrong, and standard error says how it should be

struct Command {
  const char* name;
  const char* summary;
  int (*run)(int argc, char** argv);
};

int RunCheck(int argc, char** argv);
int RunEnrol(int argc, char** argv);
int RunJoin(int argc, char** argv);
int RunRotate(int argc, char** argv);
int RunLeave(int argc, char** argv);
int RunStatus(int argc, char** argv);
int RunKeys(int argc, char** argv);
int RunToken(int argc, char** argv);
int RunWhoami(int argc, char** argv);

}  // namespace tavrel::tools

#endif
