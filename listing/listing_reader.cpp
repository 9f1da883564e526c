#include "listing/listing.hpp"
