/* Marks what callers of the shared library use; everything else stays hidden. */
#ifndef BMCBUS_EXPORT_H
#define BMCBUS_EXPORT_H

#define BMCBUS_EXPORT __attribute__((visibility("default")))
/* Inside an exported class: for its own source only. */
#define BMCBUS_LOCAL __attribute__((visibility("hidden")))

#endif
