#include "zel_operations_prepare_quant8.h"
