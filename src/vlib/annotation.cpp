// Annotation text files: boxes, box lists, attributes and score lists.
// Every file is untrusted: readers bound what they store by their arrays
// and allocate only for records the file actually holds.
#include <vonet/annotation.h>

#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "common/check.h"

namespace {

constexpr const char* kUnit = "vlib/base";
constexpr int kLineBytes = 255;
constexpr size_t kKeyBytes = 128;
// Checks in the shared list reader are reported under the public operation.
constexpr const char* kReadList = "read_rect_list_file";

// An array that grows as records arrive, up to a declared count: a count
// the file cannot back costs nothing. New room is zeroed, so a record that
// does not parse completely holds zeros rather than garbage.
template <class T>
class GrowingArray {
public:
    explicit GrowingArray(int limit) : limit_(limit) {}
    ~GrowingArray() { free(data_); }
    GrowingArray(const GrowingArray&) = delete;
    GrowingArray& operator=(const GrowingArray&) = delete;

    // The slot for the next record `index` (records arrive in order, below
    // the limit); null when memory runs out.
    T* slot(int index) {
        if (index >= capacity_) {
            int64_t grown = capacity_ < 8 ? 16 : int64_t(capacity_) * 2;
            if (grown > limit_) grown = limit_;
            T* data = static_cast<T*>(realloc(data_, size_t(grown) * sizeof(T)));
            if (!data) return nullptr;
            memset(data + capacity_, 0, size_t(grown - capacity_) * sizeof(T));
            data_ = data;
            capacity_ = int(grown);
        }
        return data_ + index;
    }

    T* release() {
        T* data = data_;
        data_ = nullptr;
        capacity_ = 0;
        return data;
    }

private:
    T* data_ = nullptr;
    int capacity_ = 0;
    int limit_;
};

// The declared count on the first line; 0 when there is none.
int read_count_line(FILE* f) {
    char line[kLineBytes];
    int n = 0;
    if (fgets(line, kLineBytes, f) && sscanf(line, "%d", &n) == 1) return n;
    return 0;
}

FILE* open_for_writing(const char* path) {
    FILE* f = fopen(path, "w");
    if (!f) printf("Can't open file %s\n", path);
    return f;
}

// Opens a list file and reads its declared count; null (file closed) when
// the file cannot be opened or declares no records.
FILE* open_list(const char* path, int* size) {
    FILE* f = fopen(path, "r");
    if (!f) return nullptr;
    *size = read_count_line(f);
    if (*size < 1) {
        fclose(f);
        return nullptr;
    }
    return f;
}

// The count line, then one line per record from `print(f, i)`.
template <class PrintRecord>
int write_list(const char* path, int count, PrintRecord print) {
    FILE* f = open_for_writing(path);
    if (!f) return 4;
    fprintf(f, "%d\n", count);
    for (int i = 0; i < count; ++i) print(f, i);
    fclose(f);
    return 0;
}

int scan_box(FILE* f, VRect* r) { return fscanf(f, "%d %d %d %d", &r->x, &r->y, &r->width, &r->height); }

int scan_box(FILE* f, VRectf* r) { return fscanf(f, "%f %f %f %f", &r->x, &r->y, &r->width, &r->height); }

void print_box(FILE* f, const VRect& r) { fprintf(f, "%d %d %d %d\n", r.x, r.y, r.width, r.height); }

void print_box(FILE* f, const VRectf& r) { fprintf(f, "%f %f %f %f\n", r.x, r.y, r.width, r.height); }

template <class Box>
int read_box_file(const char* path, Box* rect) {
    if (!path || !rect) return 2;
    FILE* f = fopen(path, "r");
    if (!f) return 4;
    // A short file leaves the remaining fields as they were.
    int ret = scan_box(f, rect);
    (void)ret;
    fclose(f);
    return 0;
}

template <class Box>
int write_box_file(const char* path, const Box& rect) {
    if (!path) return 2;
    FILE* f = fopen(path, "w");
    if (!f) return 4;
    print_box(f, rect);
    fclose(f);
    return 0;
}

int scan_labelled(const char* line, int* label, VRect* r) {
    return sscanf(line, "%d %d %d %d %d", label, &r->x, &r->y, &r->width, &r->height);
}

int scan_labelled(const char* line, int* label, VRectf* r) {
    return sscanf(line, "%d %f %f %f %f", label, &r->x, &r->y, &r->width, &r->height);
}

void print_labelled(FILE* f, int label, const VRect& r) {
    fprintf(f, "%d %d %d %d %d\n", label, r.x, r.y, r.width, r.height);
}

void print_labelled(FILE* f, int label, const VRectf& r) {
    fprintf(f, "%d %f %f %f %f\n", label, r.x, r.y, r.width, r.height);
}

// Every declared line must be present; a short list is refused whole.
template <class Box>
int read_labelled_list(const char* path, Box** rects, int** labels, int* outCount) {
    if (!path || !rects || !labels || !outCount) return 2;
    int size = 0;
    FILE* f = open_list(path, &size);
    if (!f) return 4;
    GrowingArray<Box> boxes(size);
    GrowingArray<int> marks(size);
    char line[kLineBytes];
    int count = 0;
    while (count < size && fgets(line, kLineBytes, f)) {
        Box* box = boxes.slot(count);
        int* label = marks.slot(count);
        VO_CHECK_IN(kReadList, box != nullptr && label != nullptr, {
            fclose(f);
            return 4;
        });
        int ret = scan_labelled(line, label, box);
        (void)ret;  // a line that does not parse keeps zeros where it failed
        ++count;
    }
    fclose(f);
    VO_CHECK_IN(kReadList, count == size, return 4);
    *rects = boxes.release();
    *labels = marks.release();
    *outCount = count;
    return 0;
}

template <class Box>
int write_labelled_list(const char* path, Box* rects, int* labels, int count) {
    if (!path || !rects || !labels || count == 0) return 2;
    return write_list(path, count, [&](FILE* f, int i) { print_labelled(f, labels[i], rects[i]); });
}

}  // namespace

int read_rect_file(const char* path, VRectf* rect) { return read_box_file(path, rect); }

int write_rect_file(const char* path, VRectf rect) { return write_box_file(path, rect); }

int read_rect_file(const char* path, VRect* rect) { return read_box_file(path, rect); }

int write_rect_file(const char* path, VRect rect) { return write_box_file(path, rect); }

int read_rect_list_file(const char* path, VRect** rects, int* count) {
    if (!path || !rects || !count) return 2;
    int size = 0;
    FILE* f = open_list(path, &size);
    if (!f) return 4;
    // Hands out only the boxes actually read: the declared count may
    // promise more than the file holds.
    GrowingArray<VRect> boxes(size);
    char line[kLineBytes];
    int read = 0;
    while (read < size && fgets(line, kLineBytes, f)) {
        VRect r;
        if (sscanf(line, "%d %d %d %d", &r.x, &r.y, &r.width, &r.height) != 4) break;
        VRect* box = boxes.slot(read);
        VO_CHECK(box != nullptr, {
            fclose(f);
            return 4;
        });
        *box = r;
        ++read;
    }
    fclose(f);
    if (read == 0) return 4;
    *rects = boxes.release();
    *count = read;
    return 0;
}

int write_rect_list_file(const char* path, VRect* rects, int count) {
    if (!path || !rects || count == 0) return 2;
    return write_list(path, count, [&](FILE* f, int i) { print_box(f, rects[i]); });
}

int read_rect_list_file(const char* path, VRect** rects, int** labels, int* count) {
    return read_labelled_list(path, rects, labels, count);
}

int write_rect_list_file(const char* path, VRect* rects, int* labels, int count) {
    return write_labelled_list(path, rects, labels, count);
}

int read_rect_list_file(const char* path, VRectf** rects, int** labels, int* count) {
    return read_labelled_list(path, rects, labels, count);
}

int write_rect_list_file(const char* path, VRectf* rects, int* labels, int count) {
    return write_labelled_list(path, rects, labels, count);
}

int read_attr_file(const char* path, AttrData* attr) {
    if (!path || !attr) return 2;
    FILE* f = fopen(path, "r");
    if (!f) return 4;
    char line[kLineBytes];
    while (fgets(line, kLineBytes, f)) {
        const char* word = line;
        while (isspace(static_cast<unsigned char>(*word))) ++word;
        size_t length = 0;
        while (word[length] && !isspace(static_cast<unsigned char>(word[length]))) ++length;
        if (length == 0) continue;  // a blank line names no key
        // A word longer than the key buffer cannot be one of the keys.
        char key[kKeyBytes] = "";
        if (length < kKeyBytes) {
            memcpy(key, word, length);
            key[length] = '\0';
        }
        int ret = 0;
        if (strcmp(key, "emotion") == 0) {
            ret = sscanf(line, "%*s %d", &attr->emotion);
        } else if (strcmp(key, "age") == 0) {
            ret = sscanf(line, "%*s %d", &attr->age);
        } else if (strcmp(key, "beauty") == 0) {
            ret = sscanf(line, "%*s %f", &attr->beauty);
        } else if (strcmp(key, "male") == 0) {
            ret = sscanf(line, "%*s %d", &attr->male);
        } else if (strcmp(key, "race") == 0) {
            ret = sscanf(line, "%*s %d", &attr->race);
        } else {
            fclose(f);
            return 4;
        }
        (void)ret;  // a key without a value leaves its field as it was
    }
    fclose(f);
    return 0;
}

int write_attr_file(const char* path, AttrData attr) {
    if (!path) return 7;
    FILE* f = fopen(path, "w");
    if (!f) return 4;
    fprintf(f, "emotion %d\n", attr.emotion);
    fprintf(f, "age %d\n", attr.age);
    fprintf(f, "beauty %f\n", attr.beauty);
    fprintf(f, "male %d\n", attr.male);
    fprintf(f, "race %d\n", attr.race);
    fclose(f);
    return 0;
}

int read_slice_list_file(const char* path, SliceData** slices, int* count, int* mode) {
    if (!path || !slices || !count || !mode) return 2;
    FILE* f = fopen(path, "r");
    if (!f) return 4;
    int which = 0;
    int size = 0;
    if (fscanf(f, "%d\n", &which) != 1 || fscanf(f, "%d\n", &size) != 1 || size < 1) {
        fclose(f);
        return 4;
    }
    GrowingArray<SliceData> records(size);
    for (int i = 0; i < size; ++i) {
        float first = 0.0f;
        float second = 0.0f;
        int label = 0;
        SliceData* record = records.slot(i);
        if (!record || fscanf(f, "%f %f %d\n", &first, &second, &label) != 3) {
            fclose(f);
            return 4;
        }
        // Any other mode selects neither score; the record keeps 0.
        if (which == 0) record->score = first;
        if (which == 1) record->score = second;
        record->label = label;
    }
    fclose(f);
    *slices = records.release();
    *count = size;
    *mode = which;
    return 0;
}
