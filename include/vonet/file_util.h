// File utilities for data-preparation tools, and ascending sorts.
#ifndef VONET_FILE_UTIL_H
#define VONET_FILE_UTIL_H

// Reads every line of a text file (line end removed) into separately
// allocated strings. 0, or 4 if the file cannot be opened; an empty file
// gives a null list and count 0. Release with release_file_list.
int read_file_list(const char* path, char*** list, int* count);
// Frees the strings and the array and nulls the array pointer; 2 if it is
// already null.
int release_file_list(char*** list, int count);
// Shuffles the pointers in place with `count` random exchanges (reseeds the
// process-wide random generator).
void random_lists(char** list, int count);
// Splits a path into directory ("." when none), name and extension; each
// buffer must hold at least strlen(path) + 1 bytes. Returns `name`.
char* analysis_file_path(const char* path, char* dir, char* name, char* ext);
// 1 if the path is non-empty and opens for reading, else 0.
int file_exist(const char* path);
// Number of lines; 0 if the file cannot be opened.
int file_line_size(const char* path);
// Creates the directory and its missing parents: 0 when the directory
// exists afterwards, non-zero otherwise.
int create_directory(const char* path);
void sort_arr_float(float* arr, int n);
void sort_arr_int(int* arr, int n);

#endif
