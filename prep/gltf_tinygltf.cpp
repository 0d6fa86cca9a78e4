// tinygltf's implementation, compiled here rather than taken from Debian's libtinygltf.so, so
// that the sanitizer and fuzzing builds instrument the parser like the rest of the importer.
// Images are decoded by the importer's own loader (gltf_import.cpp), so the parser is built
// without its stb_image and stb_image_write code (TINYGLTF_NO_STB_IMAGE and
// TINYGLTF_NO_STB_IMAGE_WRITE are set for the whole library, as the header's types depend on them).
#define TINYGLTF_IMPLEMENTATION
#include <tiny_gltf.h>
