// Object detection: classifiers (a network bound to its input geometry),
// cascades of classifiers, the sliding-window detector and its result
// ordering.
//
// Statuses: 0 success; 4 a file that is missing or unusable; 7 a missing
// net, record or argument, or output counts that do not match. The
// in-memory detector returns a count of objects instead. Arrays handed to
// the caller are allocated with malloc/calloc and released with free.
#ifndef VONET_DETECTOR_H
#define VONET_DETECTOR_H

#include <stdint.h>

#include <vonet/geometry.h>
#include <vonet/net.h>

// One network with the patch geometry and class count it was trained for.
// A patch is channel x height x width floats, planar, values 0..255.
struct Classifier {
    Net* net;  // null when the model file was missing or did not load
    int32_t width;
    int32_t height;
    int32_t classSize;  // scores per patch in the "prob" output
    int32_t channel;    // 1 (grey) or 3 (colour)
};

// A box while searching.
struct ObjectInfof {
    float x;
    float y;
    float width;
    float height;
    float conf;     // winning score of the last classifier that scored the box
    uint8_t label;  // its class index
    float scale;    // carries the box from its pyramid level to the image
};

// A detection handed to the host, in image pixels.
struct ObjectInfo {
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
    float conf;
    uint8_t label;
};

// Up to six classifiers; any slot may be null. Detection uses the first
// three; the others are only loaded and released.
struct Cascade {
    Classifier* anet;  // scores every window of the pyramid
    Classifier* bnet;  // re-scores and regresses the survivors' patches
    Classifier* cnet;  // re-crops each box from the full image
    Classifier* dotnet;
    Classifier* mnet;
    Classifier* enet;
    int32_t classSize;  // recorded only
};

struct VoDetector {
    Cascade* cascade;
    int32_t width;   // search window, from anet
    int32_t height;
    float minSizeRatio;  // smallest object, as a fraction of the shorter side
    float maxSizeRatio;  // largest object
    float strideRatio;   // window step, as a fraction of the window
    int32_t levels;      // pyramid levels, 1 to 64
};

// Classifiers. Model directory layout: dir/name.dat (the network) and
// dir/name_params.dat (16 bytes: classSize, width, height, channel).
Classifier* create_classifier();
// Prints the base name when the model file exists; null when absent or
// unloadable.
Net* load_net(const char* dir, const char* name);
// 4 without a record for a missing or unusable parameter file; 4 with the
// record handed out (net null) when the model file is missing.
int load_classifier(const char* dir, const char* name, Classifier** out);
void release_classifier(Classifier** classifier);
// Label (first maximum) and conf per patch, in batches of 128. Nothing is
// written unless every batch succeeds.
int predict_patches(Classifier* classifier, float* patches, ObjectInfof* objs, int num);
// Also applies the "fc1b" regression: x += r0, y += r1, width = r2,
// height = r3.
int predict_regress_patches(Classifier* classifier, float* patches, ObjectInfof* objs, int num);
// Re-crops every box from the image (one byte per pixel for channel 1,
// three interleaved for channel 3) with a 10% margin, scores and regresses
// it, and brings the refined box back to image coordinates.
int classify(Classifier* classifier, unsigned char* image, int width, int height, int stride, ObjectInfof* objs,
             int num);

// Cascades: classifiers dir/name_anet ... dir/name_enet.
int load_cascade(const char* dir, const char* name, Cascade** out);
void release_cascade(Cascade** cascade);
// First and second stage over `num` patches of anet's size; keeps the
// records (and patches) whose label is not 0, in order, and returns their
// number.
int predict_patches(Cascade* cascade, float* patches, int num, ObjectInfof* objs);
// Third stage on a grey image: re-crops each box with a 15% margin for
// cnet, keeps those whose label is not 0 (label - 1), returns their number.
int classify(Cascade* cascade, unsigned char* image, int width, int height, int stride, ObjectInfof* objs,
             int num);

// The detector.
VoDetector* create_detector();
// 4 and nothing handed out when no main stage loads, or when the stages do
// not agree with anet's grey window.
int load_detector(const char* dir, const char* name, VoDetector** out);
// Objects in an 8-bit grey image; the array (also for 0 objects) goes to
// *out. Returns 0 with *out untouched for missing arguments and for sizes
// or parameters it cannot search (sides 2..65535, stride >= width, levels
// 1..64, finite positive ratios, largest pyramid level up to 2^28 bytes).
int detect_objects(VoDetector* detector, unsigned char* image, int width, int height, int stride,
                   ObjectInfo** out);
void release_detector_data(VoDetector* detector);
void release_detector(VoDetector** detector);
// Greedy suppression: of two boxes whose intersection covers more than
// `threshold` of either, the one of lower conf (the earlier on a tie) is
// dropped. Survivors are compacted by moving the last record into each
// gap, so their order changes.
int merge_rects(ObjectInfof* objs, int num, float threshold);

// Result ordering and size normalisation.
// Drops boxes far from the mean size, then gives the others one common
// square size about their centres. Returns the new count.
int filter_by_size(VRect* rects, int num);
// In-place orderings (equal keys keep no guaranteed order).
void sort_arr_objinfo_by_horizontal(ObjectInfo* objs, int num);  // x ascending
void sort_arr_objinfo_by_vertical(ObjectInfo* objs, int num);    // y ascending
void sort_arr_objinfo_by_conf(ObjectInfo* objs, int num);        // conf descending

// The plain-function entry (load_object_manager, the file-level
// detect_objects, release_object_manager, set_detect_params).
#include <vonet/object_manager.h>

#endif
