#include "zel_operations_prepare_float32.h"
