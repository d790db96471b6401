#pragma once

// Marks the classes and functions a host may use; everything else stays hidden.
#if defined(NORVANALYTIC_BUILDING)
#define NORVANALYTIC_EXPORT __attribute__((visibility("default")))
#else
#define NORVANALYTIC_EXPORT
#endif
