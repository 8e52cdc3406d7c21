#pragma once
#include "vemoproc_export.hpp"
