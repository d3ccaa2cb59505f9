#include "zel_utils.h"
