// Annotation text files: boxes, labelled box lists, face attributes and
// score lists. Readers of lists allocate the returned arrays with malloc;
// the caller releases them with free. Output arguments are written only on
// success.
//
// Results: 0 success; 2 missing argument; 4 file cannot be opened, or a
// list whose header or body is unusable; 7 null path in write_attr_file.
#ifndef VONET_ANNOTATION_H
#define VONET_ANNOTATION_H

#include <stdint.h>

#include <vonet/geometry.h>

// One face's attributes.
struct AttrData {
    int32_t emotion;
    int32_t age;
    float beauty;
    int32_t male;
    int32_t race;
};

// One entry of a score list: the score chosen by the file's mode.
struct SliceData {
    float score;
    int32_t label;
};

// One box per file.
int read_rect_file(const char* path, VRectf* rect);
int write_rect_file(const char* path, VRectf rect);
int read_rect_file(const char* path, VRect* rect);
int write_rect_file(const char* path, VRect rect);

// Box lists: a count line, then one box per line (label first when
// labelled). The unlabelled reader returns the boxes read before the end of
// the file or the first line that is not four integers.
int read_rect_list_file(const char* path, VRect** rects, int* count);
int write_rect_list_file(const char* path, VRect* rects, int count);
int read_rect_list_file(const char* path, VRect** rects, int** labels, int* count);
int write_rect_list_file(const char* path, VRect* rects, int* labels, int count);
int read_rect_list_file(const char* path, VRectf** rects, int** labels, int* count);
int write_rect_list_file(const char* path, VRectf* rects, int* labels, int count);

// Fills the fields whose keys appear; an unknown key ends the reading with 4.
int read_attr_file(const char* path, AttrData* attr);
int write_attr_file(const char* path, AttrData attr);

// Mode, count, then per record two scores and a label; mode 0 keeps the
// first score, mode 1 the second.
int read_slice_list_file(const char* path, SliceData** slices, int* count, int* mode);

#endif
