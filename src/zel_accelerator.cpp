#include "zel_accelerator.h"
