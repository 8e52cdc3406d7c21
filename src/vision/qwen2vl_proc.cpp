#include "qwen2vl.hpp"
