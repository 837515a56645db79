// What leaves libkeyview-host.so. Everything is hidden unless it carries this mark.
#ifndef KEYVIEW_HOST_SUPPORT_EXPORT_H
#define KEYVIEW_HOST_SUPPORT_EXPORT_H

#define KEYVIEW_HOST_API __attribute__((visibility("default")))

#endif
