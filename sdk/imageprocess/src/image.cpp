// Placeholder until the picture helpers land.
#include "VornImage.h"

int YUV2JpgEx(const unsigned char*, int, int, unsigned char*, int*, int) { return 0; }
int AddObjectToYUV(unsigned char*, int, int, const int*, int, int) { return 0; }
