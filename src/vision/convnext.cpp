#include "convnext.hpp"
