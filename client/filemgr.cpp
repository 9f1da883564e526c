// Placeholder until this command is built.
#include "client/client.hpp"

int qadd_cmd(int, char **) { return notAvailableYet("qadd"); }
int qrm_cmd(int, char **) { return notAvailableYet("qrm"); }
int filemgr_status_cmd(int, char **) { return notAvailableYet("status"); }
