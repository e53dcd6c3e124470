/* Marks what callers of the shared library use; everything else stays hidden. */
#ifndef BMCBUS_EXPORT_H
#define BMCBUS_EXPORT_H

#define BMCBUS_EXPORT __attribute__((visibility("default")))

#endif
