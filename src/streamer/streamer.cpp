#include "streamer.hpp"
