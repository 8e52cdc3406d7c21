#include "dia.hpp"
