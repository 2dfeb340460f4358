// The recstore tool's subcommands; each takes its own argv (argv[0] is the command's name) and
// returns the exit status (0 ok, 1 failure, 2 usage; check gives the kCheck* statuses of cli.h).
#ifndef RECSTORE_TOOL_COMMANDS_H
#define RECSTORE_TOOL_COMMANDS_H

namespace tool {

int cmd_format(int argc, char **argv);
int cmd_up(int argc, char **argv);
int cmd_down(int argc, char **argv);
int cmd_record(int argc, char **argv);
int cmd_play(int argc, char **argv);
int cmd_inspect(int argc, char **argv);
int cmd_check(int argc, char **argv);
int cmd_find(int argc, char **argv);
int cmd_calendar(int argc, char **argv);
int cmd_demo(int argc, char **argv);

}  // namespace tool

#endif
