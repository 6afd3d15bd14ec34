/*
 * mode_tables.h - the sensor's mode tables and the lists published from them.
 */
#pragma once

#include "device_context.h"

/* Publish the four mode lists and the PDAF list; run during device add. */
NTSTATUS BuildModeLists(PDEVICE_CONTEXT DeviceContext);
NTSTATUS BuildPdafList(PDEVICE_CONTEXT DeviceContext);
