#include "zel_operations_check_float32.h"
