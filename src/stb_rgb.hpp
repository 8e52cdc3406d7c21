#pragma once
// The library's one way to decode an image file as 8-bit RGB. Internal: not
// exported, shared by every family that reads image files.

// Same contract as stbi_load(path, x, y, &channels_in_file, 3): the pixels
// (free with stbi_image_free) or null when the file cannot be decoded.
unsigned char* vemoproc_load_rgb(const char* path, int* x, int* y, int* channels_in_file);
