#include "zel_operations_check_quant8.h"
