/* A C program using each library through its public header. */
#include <stdio.h>
#include <string.h>

#include "qnvutil/bitbuffer.h"
#include "qnvutil/qxutil.h"
#include "qnvutil/timecodetext.h"

int main(void) {
    uint8_t bytes[3] = {0x5A, 0x00, 0x00};
    BitBuffer bb = {bytes, 0, 16, 0};
    if (ReadBits(&bb, 4) != 5) return 1;

    char text[TCT_TEXT_SIZE];
    if (TimecodeTextFormat(107892, 4 | 0x32100, text) != 0 || strcmp(text, "01:00:00;00") != 0) return 2;

    char b64[32];
    uint32_t n = 0;
    base64_encode((const uint8_t*)"qnv", 3, &n, b64);
    if (n != 4 || strcmp(b64, "cW52") != 0) return 3;
    puts("ok");
    return 0;
}
