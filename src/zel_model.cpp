#include "zel_model.h"
