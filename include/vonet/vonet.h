// vonet: convolutional networks and cascade object detection on the CPU.
// Everything runs on the caller's thread; one net is used by one thread at
// a time, and different nets on different threads are independent.
#ifndef VONET_VONET_H
#define VONET_VONET_H

#include <vonet/version.h>
#include <vonet/tensor.h>
#include <vonet/net.h>
#include <vonet/geometry.h>
#include <vonet/image.h>
#include <vonet/kernels.h>
#include <vonet/activation.h>
#include <vonet/annotation.h>
#include <vonet/file_util.h>
#include <vonet/convolution.h>
#include <vonet/inner_product.h>
#include <vonet/deconvolution.h>
#include <vonet/pooling.h>
#include <vonet/softmax.h>
#include <vonet/normalization.h>
#include <vonet/tensor_layers.h>
#include <vonet/net_quantize.h>
#include <vonet/detector.h>

#endif
