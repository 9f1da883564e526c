// The client's front end: the command table, the process-wide values every command shares,
// and the command handlers.
#pragma once

#include <netinet/in.h>

#include <csignal>
#include <cstdint>

struct MulticallInfo {
  int (*func)(int argc, char **argv);
  const char *name;  // program name that selects the command
  const char *opt;   // first-argument word that selects the command
  const char *help;  // synopsis in the usage list
};

extern const MulticallInfo multicall[12];

// The transfer socket and the session's local file (-1 when not open), and the interrupt flag.
extern int fd;
extern int outputFd;
extern volatile sig_atomic_t rx_sigint;

int kestil_main(int argc, char **argv);
int print_usage(const char *name);
void cleanup();
void sigint_handler(int num);

int get_cmd(int argc, char **argv);
int resume_cmd(int argc, char **argv);
int put_cmd(int argc, char **argv);
int ls_cmd(int argc, char **argv);
int rm_cmd(int argc, char **argv);
int report_cmd(int argc, char **argv);
int lsread_cmd(int argc, char **argv);
int progress_cmd(int argc, char **argv);
int qadd_cmd(int argc, char **argv);
int qrm_cmd(int argc, char **argv);
int filemgr_status_cmd(int argc, char **argv);

// The remote host and the idle limit of every command that does not name them.
constexpr const char *DEFAULT_HOST = "127.0.0.1";
constexpr int DEFAULT_TIMEOUT_SECONDS = 1000;

// Helpers the command handlers share.
// Prints a command's synopsis line; the handler returns what this returns (0).
int printSynopsis(const char *synopsis);
// The last component of a path: the default name of the file on the other side.
const char *baseName(const char *path);
// Opens the transfer socket `fd` and aims `target` at `port` of `host`. With a null host the
// caller fills in the address. A host that does not resolve ends the process (status 1).
void openTransferSocket(const char *host, uint16_t port, sockaddr_in *target);
