// The listing reader and its table printer.
#pragma once
