#include "json.h"
