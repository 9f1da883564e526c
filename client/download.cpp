// Placeholder until this command is built.
#include "client/client.hpp"

int get_cmd(int, char **) { return notAvailableYet("get"); }
int resume_cmd(int, char **) { return notAvailableYet("resume"); }
