// The bounded wait of every session loop.
#pragma once

// 1: fd readable; 0: the deadline passed; -1: select failed (an interrupt included).
int select_call(int fd, int sec, int usec);
