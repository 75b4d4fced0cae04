// vonet: convolutional networks and cascade object detection on the CPU.
// Everything runs on the caller's thread; one net is used by one thread at
// a time, and different nets on different threads are independent.
#ifndef VONET_VONET_H
#define VONET_VONET_H

#include <vonet/version.h>
#include <vonet/tensor.h>
#include <vonet/net.h>
#include <vonet/geometry.h>

#endif
