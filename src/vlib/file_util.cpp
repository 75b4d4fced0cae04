// File lists, path splitting, existence and line counts, directory
// creation, and the ascending sorts.
#include <vonet/file_util.h>
#include <vonet/kernels.h>

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "common/quicksort.h"

namespace {

constexpr int kListLineBytes = 511;
constexpr int kCountLineBytes = 4095;

void free_strings(char** strings, int count) {
    for (int i = 0; i < count; ++i) free(strings[i]);
    free(strings);
}

bool is_directory(const char* path) {
    struct stat st;
    return stat(path, &st) == 0 && S_ISDIR(st.st_mode);
}

}  // namespace

int read_file_list(const char* path, char*** list, int* count) {
    if (!list || !count) return 2;
    *list = nullptr;
    *count = 0;
    FILE* f = path ? fopen(path, "r") : nullptr;
    if (!f) {
        printf("Can't open file %s\n", path ? path : "");
        return 4;
    }
    char line[kListLineBytes];
    char** strings = nullptr;
    int capacity = 0;
    int size = 0;
    // A longer line arrives in pieces, each piece becoming an entry.
    while (fgets(line, kListLineBytes, f)) {
        size_t length = strlen(line);
        if (length > 0) line[--length] = '\0';  // the line end
        if (size == capacity) {
            int grown = int(capacity * 1.5) + 1;
            char** larger = static_cast<char**>(calloc(size_t(grown), sizeof(char*)));
            if (!larger) {
                free_strings(strings, size);
                fclose(f);
                return 4;
            }
            if (size > 0) memcpy(larger, strings, size_t(size) * sizeof(char*));
            free(strings);
            strings = larger;
            capacity = grown;
        }
        char* copy = static_cast<char*>(malloc(length + 10));
        if (!copy) {
            free_strings(strings, size);
            fclose(f);
            return 4;
        }
        memcpy(copy, line, length + 1);
        strings[size++] = copy;
    }
    fclose(f);
    if (size == 0) return 0;
    // Hand out exactly one pointer per line.
    char** exact = static_cast<char**>(malloc(size_t(size) * sizeof(char*)));
    if (!exact) {
        free_strings(strings, size);
        return 4;
    }
    memcpy(exact, strings, size_t(size) * sizeof(char*));
    free(strings);
    *list = exact;
    *count = size;
    return 0;
}

int release_file_list(char*** list, int count) {
    if (!list || !*list) return 2;
    char** strings = *list;
    for (int i = 0; i < count; ++i) {
        if (strings[i]) {
            free(strings[i]);
            strings[i] = nullptr;
        }
    }
    free(strings);
    *list = nullptr;
    return 0;
}

void random_lists(char** list, int count) {
    if (!list || count <= 0) return;
    srand(unsigned(clock()));
    // `count` random exchanges, not a uniform permutation.
    for (int i = 0; i < count; ++i) {
        long a = random() % count;
        long b = random() % count;
        if (a != b) {
            char* t = list[a];
            list[a] = list[b];
            list[b] = t;
        }
    }
}

char* analysis_file_path(const char* path, char* dir, char* name, char* ext) {
    if (!path) path = "";
    const char* end = path + strlen(path);
    // The extension follows the last '.' of the whole path, even one that
    // sits in a directory component.
    const char* dot = strrchr(path, '.');
    const char* nameEnd = dot ? dot : end;
    const char* slash = nullptr;
    for (const char* p = path; p < nameEnd; ++p)
        if (*p == '/') slash = p;
    const char* nameStart = slash ? slash + 1 : path;
    if (ext) {
        const char* e = dot ? dot + 1 : end;
        memcpy(ext, e, size_t(end - e) + 1);
    }
    if (name) {
        memcpy(name, nameStart, size_t(nameEnd - nameStart));
        name[nameEnd - nameStart] = '\0';
    }
    if (dir) {
        if (!slash || slash == path) {
            strcpy(dir, ".");
        } else {
            memcpy(dir, path, size_t(slash - path));
            dir[slash - path] = '\0';
        }
    }
    return name;
}

int file_exist(const char* path) {
    if (!path || !*path) return 0;
    FILE* f = fopen(path, "r");
    if (!f) return 0;
    fclose(f);
    return 1;
}

int file_line_size(const char* path) {
    FILE* f = path ? fopen(path, "r") : nullptr;
    if (!f) return 0;
    char line[kCountLineBytes];
    int count = 0;
    // A line longer than the buffer counts once per piece.
    while (fgets(line, kCountLineBytes, f))
        if (line[0] != '\0') ++count;
    fclose(f);
    return count;
}

int create_directory(const char* path) {
    if (!path || !*path) return 1;
    // Level by level, without a shell: blanks and shell characters are
    // ordinary name characters here.
    std::string prefix(path);
    for (size_t i = 1; i <= prefix.size(); ++i) {
        if (i < prefix.size() && prefix[i] != '/') continue;
        if (prefix[i - 1] == '/') continue;  // repeated separators
        std::string level = prefix.substr(0, i);
        if (mkdir(level.c_str(), 0777) != 0 && !is_directory(level.c_str())) return 1;
    }
    return is_directory(path) ? 0 : 1;
}

// The float sort is the kernels' sort itself.
void sort_arr_float(float* arr, int n) { sort_arr_dtype(arr, n); }

void sort_arr_int(int* arr, int n) { vo::quicksort<vo::Ascending>(arr, n); }
