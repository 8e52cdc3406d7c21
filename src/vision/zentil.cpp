#include "zentil.hpp"
