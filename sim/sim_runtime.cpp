#include "zel_kestrel_runtime.h"
