#include "queue/downlink_queue.hpp"
