#include "common/common.hpp"
