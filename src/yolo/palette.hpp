#pragma once
// The class colours every drawing function of the family uses, RGB.
#include <cstdint>

namespace yolo::internal {

constexpr uint8_t kColorTable[20][3] = {
    {4, 42, 255},    {11, 219, 235}, {243, 243, 243}, {0, 223, 183},  {17, 31, 104},
    {255, 111, 221}, {255, 68, 79},  {204, 237, 0},   {0, 243, 68},   {189, 0, 255},
    {0, 180, 255},   {221, 0, 186},  {0, 255, 255},   {38, 192, 0},   {1, 255, 179},
    {125, 36, 255},  {123, 0, 104},  {255, 27, 108},  {252, 109, 47}, {162, 255, 11},
};

inline const uint8_t* class_color(int class_id) {
  return kColorTable[static_cast<uint64_t>(static_cast<int64_t>(class_id)) % 20];
}

}  // namespace yolo::internal
