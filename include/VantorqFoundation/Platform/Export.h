#pragma once

/// Marks what the shared library exports; everything else is hidden.
#define VNTQ_EXPORT __attribute__((visibility("default")))
