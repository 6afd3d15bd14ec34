/*
 * description.cpp - the sensor's static description records, handed to the
 * camera driver byte for byte as they stand here.
 */
#include "description.h"

// Word 8 holds the capability mode 5 in bits 3-5 beside bits 0, 6, 10 and 11.
const SENSOR_CAPS SensorCapsTemplate = {0x82, 0, 0x00000C69, 3, 0xFFFFFFFF};
static_assert((0x00000C69 & SENSOR_CAPS_MODE_MASK) >> SENSOR_CAPS_MODE_SHIFT == SENSOR_CAPS_MODE_RGB,
              "the template's capability mode");

// PdafType (byte 88) follows the registry's "PDAF_Type".
SENSOR_PARAMETERS SensorParameters = {
    {0, 1, 1777, 0, 0, 65000, 1, 800, 50, 2000, 100, 2000, 1, 29, 26},
    0, /* HdrWord */
    0,
    0, /* PdafType */
    {0},
};

// InterleaveMode and both format flags follow the registry.
PDAF_INFO PdafInfoTemplate = {
    0,       /* Byte0 */
    {0},
    1,       /* InterleaveMode */
    0,       /* FormatFlagA */
    0, 0, 0, 0, 0,
    0,       /* FormatFlagB */
    48,      /* Word36 */
};

// The last two rows are empty and match a 0 x 0 request.
const PDAF_SIZE PdafSizeTable[PDAF_SIZE_ROWS] = {
    {640, 512, 128, 24, 0},    {1920, 1120, 256, 148, 0}, {3328, 2496, 528, 528, 0}, {3840, 2176, 528, 528, 0},
    {4096, 3072, 528, 528, 0}, {4208, 3120, 256, 148, 0}, {4032, 3024, 4032, 756, 0}, {4608, 3458, 272, 832, 0},
    {0, 0, 0, 0, 0},           {0, 0, 0, 0, 0},
};
