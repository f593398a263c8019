// Marks what libvellumhistory.so promises to programs that embed it.
#pragma once

#define VELLUM_EXPORT __attribute__((visibility("default")))
