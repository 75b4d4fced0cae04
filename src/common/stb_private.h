// Debian's stb image headers, compiled privately into the including file.
// Define STB_IMAGE_STATIC and STB_IMAGE_IMPLEMENTATION (and the _WRITE_
// pair for the encoder) first, in exactly one source file per binary: the
// functions stay static, so no stb symbol is exported or shared.
#ifndef VONET_COMMON_STB_PRIVATE_H
#define VONET_COMMON_STB_PRIVATE_H

// Third-party code: its own warnings are not ours to fix.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wunused-function"
#pragma GCC diagnostic ignored "-Wunused-parameter"
#pragma GCC diagnostic ignored "-Wsign-compare"
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"
#pragma GCC diagnostic ignored "-Wimplicit-fallthrough"
#pragma GCC diagnostic ignored "-Wtype-limits"
#pragma GCC diagnostic ignored "-Wunused-but-set-variable"
#include <stb/stb_image.h>
#ifdef STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb/stb_image_write.h>
#endif
#pragma GCC diagnostic pop

#endif
