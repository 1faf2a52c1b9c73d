#ifndef OBR_API_H
#define OBR_API_H

/// Marks what a shared library of Kesa exports; everything else is hidden.
#define KESA_API __attribute__((visibility("default")))

#endif
