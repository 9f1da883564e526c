// The command table, dispatch by program name or first argument, the usage list, and the
// process-wide values with their clean-up and interrupt handler.
#include <arpa/inet.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "client/client.hpp"
#include "station/station.hpp"

int fd = -1;
int outputFd = -1;
volatile sig_atomic_t rx_sigint = 0;

const MulticallInfo multicall[12] = {
    {get_cmd, "kestil-get", "get",
     "[-h <rem host>] [-o <output file>] [-z] [-t <timeout secs>] [-l <stop length>] [-c] [-L] <rem file>: "
     "Download a remote file.  -z option zero pads undownloaded data."},
    {resume_cmd, "kestil-resume", "resume",
     "[-z] [-l <stop length>] [-t <timeout secs>] [-L] <local file>: Download a remote file.  -z option zero "
     "pads undownloaded data."},
    {put_cmd, "kestil-put", "put",
     "[-h <rem host>] [-o <rem file>] [-t <timeout secs>] [-p <packets per second (6.0)] [-L] <lcl file>: "
     "Upload a remote file"},
    {ls_cmd, "kestil-ls", "ls",
     "[-h <rem host>] [-t <timeout secs>] [-o <[a][r]>] <path>: List the contents of a remote directory"},
    {rm_cmd, "kestil-rm", "rm", "[-h <rem host>] [-L] <rem file>: Delete a remote file"},
    {report_cmd, "kestil-report", "report",
     "[-h <rem host>] [-t <timeout secs>] [-r]: Display the contents of the remote download queue.  -r option "
     "automatically removes the transfered file names once the transfer is confirmed as successful."},
    {lsread_cmd, "kestil-lsread", "lsread", "<inp file>: Read and display the contents of the named directory listing"},
    {progress_cmd, "kestil-progress", "progress", "<file>: Displays the progress of a partially downloaded file"},
    {qadd_cmd, "dlq-add", "qadd",
     "[-h host] [-g <group num>] [-p <priority num>] <file>: Add an entry to the download queue"},
    {qrm_cmd, "dlq-rm", "qrm", "[-h host] [-g <group num>] <file>: Remove an entry from the download queue"},
    {filemgr_status_cmd, "filemgr-status", "status", "[rem host]: Display the current status of the file manager"},
    {nullptr, nullptr, nullptr, nullptr},
};

int print_usage(const char *) {
  std::printf("kestil multicall binary:\n");
  for (const MulticallInfo *row = multicall; row->func != nullptr; ++row)
    std::printf("    %-16s %s\n", row->name, row->help);
  return 0;
}

void cleanup() {
  if (fd != -1) close(fd);
  if (outputFd >= 0) close(outputFd);
}

void sigint_handler(int) { rx_sigint = 1; }

int printSynopsis(const char *synopsis) {
  std::puts(synopsis);
  return 0;
}

const char *baseName(const char *path) {
  const char *slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

void openTransferSocket(const char *host, uint16_t port, sockaddr_in *target) {
  fd = socket_init(0);
  *target = sockaddr_in{};
  target->sin_family = AF_INET;
  target->sin_port = htons(port);
  if (host != nullptr && socket_resolve_host(host, &target->sin_addr) == 0) {
    std::fputs("inet_aton() failed\n", stderr);
    cleanup();
    std::exit(1);
  }
}

int kestil_main(int argc, char **argv) {
  DBG_init(argv[0]);
  DBG_setLevel(7);

  // No SA_RESTART: an interrupt must end a pending select so the loops see rx_sigint.
  struct sigaction action {};
  action.sa_handler = sigint_handler;
  sigemptyset(&action.sa_mask);
  sigaction(SIGINT, &action, nullptr);

  const char *base = baseName(argv[0]);
  for (const MulticallInfo *row = multicall; row->func != nullptr; ++row)
    if (std::strcmp(row->name, base) == 0) return row->func(argc, argv);
  if (argc > 1)
    for (const MulticallInfo *row = multicall; row->func != nullptr; ++row)
      if (std::strcmp(row->opt, argv[1]) == 0) return row->func(argc - 1, argv + 1);
  return print_usage(argv[0]);
}
