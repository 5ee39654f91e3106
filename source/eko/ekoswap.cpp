// SPDX-License-Identifier: MIT
// Byte order: the bytes of one value, reversed.

#include <string.h>

#include "ekoint.h"

uint16 eko_swaporder16(uint16 value)
{
    return __builtin_bswap16(value);
}

uint32 eko_swaporder32(uint32 value)
{
    return __builtin_bswap32(value);
}

uint64 eko_swaporder64(uint64 value)
{
    return __builtin_bswap64(value);
}

// The bytes are exact in here. What alters some of them on 32-bit x86 is the way out: a float result goes through a
// register of the x87, and loading it there turns a signalling NaN into a quiet one.
float eko_swaporderf32(float value)
{
    uint32 image;
    memcpy(&image, &value, sizeof(image));
    image = eko_swaporder32(image);
    memcpy(&value, &image, sizeof(value));
    return value;
}

double eko_swaporderf64(double value)
{
    uint64 image;
    memcpy(&image, &value, sizeof(image));
    image = eko_swaporder64(image);
    memcpy(&value, &image, sizeof(value));
    return value;
}
