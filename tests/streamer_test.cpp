#include <gtest/gtest.h>

#include "streamer.hpp"
