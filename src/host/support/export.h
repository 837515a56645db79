// Marks the exports of libkeyview-host.so. All else is hidden.
#ifndef KEYVIEW_HOST_SUPPORT_EXPORT_H
#define KEYVIEW_HOST_SUPPORT_EXPORT_H

#define KEYVIEW_HOST_API __attribute__((visibility("default")))

#endif
