// Symbol visibility of the shared library: everything is hidden except what is marked here.
#pragma once

#define PBLINALG_EXPORT __attribute__((visibility("default")))
