/* The object manager from C99: the header compiles on its own and the
 * unmangled functions link and answer. */
#include <vonet/object_manager.h>

#include <stdio.h>

static int failures = 0;

static void expect(int ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "object_manager_c: failed: %s\n", what);
        ++failures;
    }
}

int main(void) {
    VoDetector* manager = NULL;
    VRect roi = {0, 0, 0, 0};
    VRect* rects = NULL;
    int num = -1;

    expect(load_object_manager("/nonexistent-vonet-dir", "face", &manager) == 4, "missing kind gives 4");
    expect(manager == NULL, "handle left as it was");
    expect(load_object_manager("/nonexistent-vonet-dir", "face", NULL) == 7, "null handle slot gives 7");
    expect(detect_objects(NULL, "absent.png", roi, &rects, &num) == 7, "null handle gives 7");
    expect(num == -1 && rects == NULL, "nothing written");
    set_detect_params(NULL, 0.1f, 0.2f, 0.3f, 4);
    release_object_manager(&manager);
    release_object_manager(NULL);
    return failures ? 1 : 0;
}
