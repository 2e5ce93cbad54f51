#pragma once
// The comparison of definition names now lives in core/Names.h; this header
// stays for the files that still include it by this name.
#include "core/Names.h"
