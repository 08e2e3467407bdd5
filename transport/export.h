// Marks what the shared library exports; everything else is hidden.
#pragma once

#define PARALLEL_SPF_TRANSPORT_EXPORT __attribute__((visibility("default")))
