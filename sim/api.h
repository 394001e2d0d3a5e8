// Marks what the library shows to the programs that link it. Everything without the mark stays hidden.
#pragma once

#define LATIXELSIM_API __attribute__((visibility("default")))
