// vonet detect: objects in image files with a bundled or given cascade,
// printed as text or JSON and optionally drawn into PNG copies.
#include <unistd.h>
#include <vonet/detector.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "args.h"
#include "commands.h"
#include "detector/detector_internal.h"
#include "detector/stage_times.h"
#include "image_io.h"
#include "model_io.h"
#include "table.h"

namespace vo::cli {
namespace {

namespace fs = std::filesystem;

constexpr const char* kName = "detect";
constexpr int64_t kMaxBenchRuns = 100000;

// Settings that find every face with the bundled cascade; the library's own
// defaults search too few scales for it.
constexpr float kDefaultMin = 0.03f;
constexpr float kDefaultMax = 1.0f;
constexpr float kDefaultStride = 0.3f;
constexpr int64_t kDefaultLevels = 14;

constexpr const char* kHelp =
    "Usage: vonet detect IMAGE... [-o OUT.png | --out-dir DIR] [--models DIR] [--kind face]\n"
    "                    [--min R] [--max R] [--stride R] [--levels N] [--json] [--bench N]\n"
    "\n"
    "Finds objects (faces by default) in image files with a cascade of networks.\n"
    "IMAGE is a PNG, JPEG or BMP file (colour or grey), or a folder whose image\n"
    "files (.png .jpg .jpeg .bmp .gif .tga .pgm .ppm .pnm) are searched one by\n"
    "one in name order. A file that cannot be used is reported and skipped.\n"
    "\n"
    "Options:\n"
    "  -o OUT.png      write a copy of the only IMAGE with the boxes drawn (PNG)\n"
    "  --out-dir DIR   write such a copy of every image as DIR/NAME_KIND.png\n"
    "                  (the folder is created when missing)\n"
    "  --models DIR    folder of the cascade's files object_KIND_anet.dat,\n"
    "                  object_KIND_anet_params.dat and so on (default: the bundled\n"
    "                  models, ../share/vonet/models beside the installed program,\n"
    "                  else the source tree's models/)\n"
    "  --kind NAME     which cascade of the folder (default face)\n"
    "  --min R         smallest object, as a fraction of the image's shorter side\n"
    "                  (default 0.03)\n"
    "  --max R         largest object, the same way (default 1.0)\n"
    "  --stride R      window step, as a fraction of the window, above 0 up to 1\n"
    "                  (default 0.3)\n"
    "  --levels N      pyramid levels, 1 to 64 (default 14)\n"
    "  --json          print one JSON document instead of text\n"
    "  --bench N       also run the detection N more times per image and report\n"
    "                  the median, minimum and maximum time and each stage's share\n"
    "                  (pyramid and patches, anet, bnet, cnet, merge)\n"
    "  -h, --help      show this help\n"
    "\n"
    "--min and --max take values above 0 up to 10. The defaults suit the bundled\n"
    "face cascade: they find every face of its test photos and nothing else.\n"
    "\n"
    "Output. For each image a line 'PATH: WIDTHxHEIGHT, N objects', then one line\n"
    "per object: x y width height confidence (pixels of the image, top-left\n"
    "corner first; highest confidence first). With --json: {\"kind\", \"models\",\n"
    "\"settings\", \"images\": [{\"path\", \"width\", \"height\", \"channels\",\n"
    "\"objects\": [{\"x\", \"y\", \"width\", \"height\", \"conf\", \"label\"}],\n"
    "\"output\" when a copy was written, \"bench\" with --bench}]}; an image that\n"
    "failed has \"error\" instead of \"objects\". Standard output holds the\n"
    "results only; messages go to standard error.\n"
    "\n"
    "The search runs on a grey image: a colour file's pixels are reordered to\n"
    "B, G, R and converted with bgr2gray, exactly as the file-level entry\n"
    "detect_objects(manager, path, ...) does; a grey file is used as it is. The\n"
    "boxes are those of the in-memory detector, each object's own box with its\n"
    "confidence. The file-level entry instead drops boxes far from the mean size\n"
    "and gives the rest one common square size about their centres\n"
    "(filter_by_size), without confidences.\n"
    "\n"
    "Exit status: 0 every image searched; 1 missing models, or an image that\n"
    "could not be read, searched or written (the others are still processed);\n"
    "2 a bad command line.\n";

using Clock = std::chrono::steady_clock;

struct Settings {
    float minRatio = kDefaultMin;
    float maxRatio = kDefaultMax;
    float stride = kDefaultStride;
    int64_t levels = kDefaultLevels;
    std::string minText = "0.03", maxText = "1", strideText = "0.3";
};

// Strict decimal number in (0, max]: no trailing text, finite.
bool parse_ratio(const std::string& text, const char* option, float max, float* value, std::string* error) {
    errno = 0;
    char* end = nullptr;
    const float v = text.empty() || isspace(static_cast<unsigned char>(text[0])) ? NAN : strtof(text.c_str(), &end);
    if (!end || *end != '\0' || errno != 0 || !std::isfinite(v) || !(v > 0.0f) || v > max) {
        *error = "bad value '" + text + "' for " + option + ": expected a number above 0 up to " + format("%g", max);
        return false;
    }
    *value = v;
    return true;
}

bool valid_kind(const std::string& kind) {
    if (kind.empty()) return false;
    for (char c : kind)
        if (!isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-') return false;
    return true;
}

bool is_image_name(const fs::path& p) {
    std::string ext = p.extension().string();
    for (char& c : ext) c = char(tolower(static_cast<unsigned char>(c)));
    for (const char* e : {".png", ".jpg", ".jpeg", ".bmp", ".gif", ".tga", ".pgm", ".ppm", ".pnm"})
        if (ext == e) return true;
    return false;
}

// One entry per image to search; a folder that cannot be listed or holds no
// image becomes an entry with its error.
struct Input {
    std::string path;
    std::string error;
};

std::vector<Input> expand_inputs(const std::vector<std::string>& args) {
    std::vector<Input> inputs;
    for (const std::string& arg : args) {
        std::error_code ec;
        if (!fs::is_directory(arg, ec)) {
            inputs.push_back({arg, ""});
            continue;
        }
        std::vector<std::string> names;
        fs::directory_iterator it(arg, ec), end;
        for (; !ec && it != end; it.increment(ec)) {
            std::error_code typeError;
            if (it->is_regular_file(typeError) && is_image_name(it->path())) names.push_back(it->path().string());
        }
        if (ec) {
            inputs.push_back({arg, "cannot list folder '" + arg + "': " + ec.message()});
            continue;
        }
        if (names.empty()) {
            inputs.push_back({arg, "folder '" + arg + "' holds no image files"});
            continue;
        }
        std::sort(names.begin(), names.end());
        for (std::string& n : names) inputs.push_back({std::move(n), ""});
    }
    return inputs;
}

std::string executable_dir() {
    std::error_code ec;
    const fs::path self = fs::read_symlink("/proc/self/exe", ec);
    return ec ? std::string() : self.parent_path().string();
}

bool has_cascade(const std::string& dir, const std::string& kind) {
    std::error_code ec;
    return fs::is_regular_file(dir + "/object_" + kind + "_anet_params.dat", ec) &&
           fs::is_regular_file(dir + "/object_" + kind + "_anet.dat", ec);
}

// The bundled models: installed beside the program, else the source tree.
bool find_models(const std::string& kind, std::string* dir, std::string* error) {
    std::vector<std::string> candidates;
    const std::string exeDir = executable_dir();
    if (!exeDir.empty()) candidates.push_back(exeDir + "/../share/vonet/models");
#ifdef VONET_SOURCE_MODELS_DIR
    candidates.push_back(VONET_SOURCE_MODELS_DIR);
#endif
    for (const std::string& c : candidates) {
        if (has_cascade(c, kind)) {
            std::error_code ec;
            const fs::path canonical = fs::weakly_canonical(c, ec);
            *dir = ec ? c : canonical.string();
            return true;
        }
    }
    *error = "no models for kind '" + kind + "' found (looked in";
    for (size_t i = 0; i < candidates.size(); ++i) *error += (i ? ", " : " ") + candidates[i];
    *error += "); give their folder with --models DIR";
    return false;
}

// Standard output holds only results: while this is alive, whatever the
// library prints goes to standard error, and results go through `out`.
class ResultStream {
public:
    ResultStream() {
        fflush(stdout);
        const int fd = dup(STDOUT_FILENO);
        if (fd >= 0) out_ = fdopen(fd, "w");
        if (!out_) {
            if (fd >= 0) close(fd);
            out_ = stdout;  // nowhere else to put them
            return;
        }
        if (dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
            fclose(out_);
            out_ = stdout;
        }
    }
    ~ResultStream() {
        if (out_ == stdout) return;
        fflush(stdout);
        fflush(out_);
        dup2(fileno(out_), STDOUT_FILENO);
        fclose(out_);
    }
    ResultStream(const ResultStream&) = delete;
    ResultStream& operator=(const ResultStream&) = delete;
    FILE* out() const { return out_; }

private:
    FILE* out_ = nullptr;
};

// Loads the detector with what the library prints meanwhile (each
// classifier's name, the optional stages it did not find) held back, and
// shown on standard error only when the load fails.
bool load_cascade_quietly(const std::string& dir, const std::string& kind, VoDetector** detector) {
    FILE* held = tmpfile();
    fflush(stdout);
    const int saved = held ? dup(STDOUT_FILENO) : -1;
    const bool redirected = saved >= 0 && dup2(fileno(held), STDOUT_FILENO) >= 0;
    const int status = load_object_manager(dir.c_str(), kind.c_str(), detector);
    fflush(stdout);
    if (redirected) dup2(saved, STDOUT_FILENO);
    if (saved >= 0) close(saved);
    bool ok = status == 0 && *detector;
    std::string why = "status " + std::to_string(status) + ": no usable first stage";
    if (ok) {
        // A stage whose parameter file is there but whose network did not
        // load would be skipped silently by the search.
        const Cascade* c = (*detector)->cascade;
        const char* roles[3] = {"anet", "bnet", "cnet"};
        const Classifier* stages[3] = {c ? c->anet : nullptr, c ? c->bnet : nullptr, c ? c->cnet : nullptr};
        for (int i = 0; ok && i < 3; ++i) {
            if ((i == 0 && !stages[i]) || (stages[i] && !stages[i]->net)) {
                ok = false;
                why = std::string("the network object_") + kind + "_" + roles[i] + ".dat is missing or unusable";
            }
        }
        if (!ok) release_object_manager(detector);
    }
    if (!ok && held) {
        rewind(held);
        char buffer[4096];
        for (size_t n; (n = fread(buffer, 1, sizeof(buffer), held)) > 0;) fwrite(buffer, 1, n, stderr);
    }
    if (held) fclose(held);
    if (!ok) report_error(kName, "cannot load the " + kind + " detector from '" + dir + "' (" + why + ")");
    return ok;
}

std::string json_string(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20)
                    out += format("\\u%04x", c);
                else
                    out += char(c);
        }
    }
    return out + "\"";
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    const size_t n = v.size();
    return n % 2 ? v[n / 2] : 0.5 * (v[n / 2 - 1] + v[n / 2]);
}

struct StageDef {
    const char* name;
    const char* key;  // in JSON
    double DetectStageTimes::*field;
};
const StageDef kStages[] = {{"pyramid and patches", "pyramid", &DetectStageTimes::pyramid},
                            {"anet", "anet", &DetectStageTimes::anet},
                            {"bnet", "bnet", &DetectStageTimes::bnet},
                            {"cnet", "cnet", &DetectStageTimes::cnet},
                            {"merge", "merge", &DetectStageTimes::merge}};
constexpr int kStageCount = int(sizeof(kStages) / sizeof(kStages[0]));

struct BenchResult {
    int64_t runs = 0;
    double medianMs = 0, minMs = 0, maxMs = 0;
    double stageMs[kStageCount] = {};  // medians
    DetectStageTimes lastRun = {};     // counts of one run
};

// Times repeated detections of one grey image; the stage times come from
// the detector's own hooks.
void bench_image(VoDetector* detector, std::vector<uint8_t>& grey, int width, int height, int64_t runs,
                 BenchResult* result) {
    std::vector<double> totals;
    std::vector<double> stages[kStageCount];
    for (int64_t r = 0; r < runs; ++r) {
        DetectStageTimes times = {};
        DetectStageTimes* previous = set_detect_stage_times(&times);
        ObjectInfo* objs = nullptr;
        const Clock::time_point start = Clock::now();
        detect_objects(detector, grey.data(), width, height, width, &objs);
        const Clock::time_point end = Clock::now();
        set_detect_stage_times(previous);
        free(objs);
        totals.push_back(std::chrono::duration<double, std::milli>(end - start).count());
        for (int s = 0; s < kStageCount; ++s) stages[s].push_back(1000.0 * (times.*kStages[s].field));
        result->lastRun = times;
    }
    result->runs = runs;
    result->medianMs = median(totals);
    result->minMs = *std::min_element(totals.begin(), totals.end());
    result->maxMs = *std::max_element(totals.begin(), totals.end());
    for (int s = 0; s < kStageCount; ++s) result->stageMs[s] = median(stages[s]);
}

double stage_sum(const BenchResult& b) {
    double sum = 0;
    for (double v : b.stageMs) sum += v;
    return sum;
}

void print_bench_text(FILE* out, const BenchResult& b) {
    fprintf(out, "  bench: median %.3f ms  min %.3f ms  max %.3f ms over %lld runs\n", b.medianMs, b.minMs, b.maxMs,
            static_cast<long long>(b.runs));
    const double sum = stage_sum(b);
    Table table({"stage", "median ms", "share"}, {false, true, true});
    for (int s = 0; s < kStageCount; ++s)
        table.add({kStages[s].name, format("%.3f", b.stageMs[s]),
                   format("%.1f%%", sum > 0 ? 100.0 * b.stageMs[s] / sum : 0.0)});
    table.print(out, 4);
    const DetectStageTimes& t = b.lastRun;
    fprintf(out, "    windows %lld, after anet %lld, after bnet %lld, after cnet %lld, after merge %lld\n",
            static_cast<long long>(t.windows), static_cast<long long>(t.afterAnet),
            static_cast<long long>(t.afterBnet), static_cast<long long>(t.afterCnet),
            static_cast<long long>(t.objects));
}

std::string bench_json(const BenchResult& b) {
    const double sum = stage_sum(b);
    std::string s = format("{\"runs\": %lld, \"median_ms\": %.4f, \"min_ms\": %.4f, \"max_ms\": %.4f, \"stages\": [",
                           static_cast<long long>(b.runs), b.medianMs, b.minMs, b.maxMs);
    for (int st = 0; st < kStageCount; ++st)
        s += format("%s{\"stage\": \"%s\", \"median_ms\": %.4f, \"share\": %.4f}", st ? ", " : "", kStages[st].key,
                    b.stageMs[st], sum > 0 ? b.stageMs[st] / sum : 0.0);
    const DetectStageTimes& t = b.lastRun;
    s += format("], \"windows\": %lld, \"after_anet\": %lld, \"after_bnet\": %lld, \"after_cnet\": %lld, "
                "\"after_merge\": %lld}",
                static_cast<long long>(t.windows), static_cast<long long>(t.afterAnet),
                static_cast<long long>(t.afterBnet), static_cast<long long>(t.afterCnet),
                static_cast<long long>(t.objects));
    return s;
}

struct Options {
    Settings settings;
    std::string kind = "face";
    std::string modelsDir;
    std::string outFile;  // -o
    std::string outDir;   // --out-dir
    bool json = false;
    int64_t benchRuns = 0;
};

// Searches one image; false (reported, and recorded in *json) when it
// could not be read, searched or written.
bool process_image(VoDetector* detector, const Options& o, const std::string& path, FILE* out,
                   std::string* json) {
    auto fail = [&](const std::string& message) {
        report_error(kName, message);
        if (o.json) *json = "{\"path\": " + json_string(path) + ", \"error\": " + json_string(message) + "}";
        return false;
    };
    DecodedImage image;
    std::string error;
    if (!decode_image(path, &image, &error)) return fail(error);
    SearchPlan plan;
    if (!plan_search(detector, image.width, image.height, image.width, &plan))
        return fail(format("cannot search '%s' (%dx%d) with these settings: sides must be 2 to 65535 pixels and "
                           "the largest pyramid level (--min) at most 2^28 pixels",
                           path.c_str(), image.width, image.height));

    ObjectInfo* found = nullptr;
    int n = detect_objects(detector, image.grey.data(), image.width, image.height, image.width, &found);
    std::vector<ObjectInfo> objs;
    if (n > 0 && found) {
        sort_arr_objinfo_by_conf(found, n);
        objs.assign(found, found + n);
    }
    free(found);

    BenchResult bench;
    if (o.benchRuns > 0) bench_image(detector, image.grey, image.width, image.height, o.benchRuns, &bench);

    std::string written;
    if (!o.outFile.empty() || !o.outDir.empty()) {
        written = o.outFile;
        if (written.empty())
            written = (fs::path(o.outDir) / (fs::path(path).stem().string() + "_" + o.kind + ".png")).string();
        std::error_code ec;
        if (fs::equivalent(written, path, ec)) return fail("refusing to write over the input image '" + path + "'");
        std::vector<Box> boxes;
        for (const ObjectInfo& b : objs) boxes.push_back({b.x, b.y, b.width, b.height});
        draw_boxes(&image, boxes);
        if (!write_png(written, image, &error)) return fail(error);
    }

    if (o.json) {
        std::string s = "{\"path\": " + json_string(path) +
                        format(", \"width\": %d, \"height\": %d, \"channels\": %d, \"objects\": [", image.width,
                               image.height, image.channels);
        for (size_t i = 0; i < objs.size(); ++i) {
            const ObjectInfo& b = objs[i];
            s += format("%s{\"x\": %d, \"y\": %d, \"width\": %d, \"height\": %d, \"conf\": %.9g, \"label\": %d}",
                        i ? ", " : "", b.x, b.y, b.width, b.height, double(b.conf), int(b.label));
        }
        s += "]";
        if (!written.empty()) s += ", \"output\": " + json_string(written);
        if (o.benchRuns > 0) s += ", \"bench\": " + bench_json(bench);
        *json = s + "}";
    } else {
        fprintf(out, "%s: %dx%d, %zu object%s\n", path.c_str(), image.width, image.height, objs.size(),
                objs.size() == 1 ? "" : "s");
        for (const ObjectInfo& b : objs)
            fprintf(out, "  %d %d %d %d %.5f\n", b.x, b.y, b.width, b.height, double(b.conf));
        if (o.benchRuns > 0) print_bench_text(out, bench);
        fflush(out);
    }
    return true;
}

int run_detect(const std::vector<std::string>& argv) {
    ParsedArgs args;
    std::string error;
    if (!parse_args(argv,
                    {{"-o", true},
                     {"--out-dir", true},
                     {"--models", true},
                     {"--kind", true},
                     {"--min", true},
                     {"--max", true},
                     {"--stride", true},
                     {"--levels", true},
                     {"--json", false},
                     {"--bench", true}},
                    &args, &error))
        return usage_error(kName, error);
    if (args.help) {
        fputs(kHelp, stdout);
        return kExitOk;
    }
    Options o;
    Settings& s = o.settings;
    if (args.positional.empty()) return usage_error(kName, "expected at least one IMAGE argument");
    if (args.has("--min") && !parse_ratio(s.minText = args.values["--min"], "--min", 10.0f, &s.minRatio, &error))
        return usage_error(kName, error);
    if (args.has("--max") && !parse_ratio(s.maxText = args.values["--max"], "--max", 10.0f, &s.maxRatio, &error))
        return usage_error(kName, error);
    if (args.has("--stride") &&
        !parse_ratio(s.strideText = args.values["--stride"], "--stride", 1.0f, &s.stride, &error))
        return usage_error(kName, error);
    if (args.has("--levels") && !parse_int(args.values["--levels"], "--levels", 1, kMaxLevels, &s.levels, &error))
        return usage_error(kName, error);
    if (args.has("--bench") && !parse_int(args.values["--bench"], "--bench", 1, kMaxBenchRuns, &o.benchRuns, &error))
        return usage_error(kName, error);
    if (s.minRatio > s.maxRatio)
        return usage_error(kName, "--min " + s.minText + " is above --max " + s.maxText);
    if (args.has("--kind")) o.kind = args.values["--kind"];
    if (!valid_kind(o.kind))
        return usage_error(kName, "bad kind '" + o.kind + "': expected letters, digits, '_' or '-'");
    if (args.has("-o") && args.has("--out-dir")) return usage_error(kName, "-o and --out-dir exclude each other");
    if (args.has("-o")) o.outFile = args.values["-o"];
    if (args.has("--out-dir")) o.outDir = args.values["--out-dir"];
    if ((args.has("-o") && o.outFile.empty()) || (args.has("--out-dir") && o.outDir.empty()))
        return usage_error(kName, "an empty output path");
    o.json = args.has("--json");

    const std::vector<Input> inputs = expand_inputs(args.positional);
    if (!o.outFile.empty() && (inputs.size() != 1 || !inputs[0].error.empty()))
        return usage_error(kName, "-o takes one image; use --out-dir DIR for several");

    if (args.has("--models")) {
        o.modelsDir = args.values["--models"];
        std::error_code ec;
        if (!fs::is_directory(o.modelsDir, ec)) {
            report_error(kName, "cannot read models: '" + o.modelsDir + "' is not a folder");
            return kExitFailure;
        }
        if (!has_cascade(o.modelsDir, o.kind)) {
            report_error(kName, "no " + o.kind + " models in '" + o.modelsDir + "' (object_" + o.kind +
                                    "_anet.dat and object_" + o.kind + "_anet_params.dat are needed)");
            return kExitFailure;
        }
    } else if (!find_models(o.kind, &o.modelsDir, &error)) {
        report_error(kName, error);
        return kExitFailure;
    }
    if (!o.outDir.empty()) {
        std::error_code ec;
        fs::create_directories(o.outDir, ec);
        if (!fs::is_directory(o.outDir, ec)) {
            report_error(kName, "cannot create the output folder '" + o.outDir + "'");
            return kExitFailure;
        }
    }

    ResultStream results;
    VoDetector* detector = nullptr;
    if (!load_cascade_quietly(o.modelsDir, o.kind, &detector)) return kExitFailure;
    set_detect_params(detector, s.minRatio, s.maxRatio, s.stride, int(s.levels));

    FILE* out = results.out();
    bool allOk = true;
    std::vector<std::string> jsonImages;
    for (const Input& in : inputs) {
        std::string json;
        if (!in.error.empty()) {
            report_error(kName, in.error);
            if (o.json) json = "{\"path\": " + json_string(in.path) + ", \"error\": " + json_string(in.error) + "}";
            allOk = false;
        } else if (!process_image(detector, o, in.path, out, &json)) {
            allOk = false;
        }
        if (!json.empty()) jsonImages.push_back(json);
    }
    release_object_manager(&detector);

    if (o.json) {
        fprintf(out, "{\n  \"kind\": %s,\n  \"models\": %s,\n", json_string(o.kind).c_str(),
                json_string(o.modelsDir).c_str());
        fprintf(out, "  \"settings\": {\"min\": %s, \"max\": %s, \"stride\": %s, \"levels\": %lld},\n",
                format("%g", double(s.minRatio)).c_str(), format("%g", double(s.maxRatio)).c_str(),
                format("%g", double(s.stride)).c_str(), static_cast<long long>(s.levels));
        fprintf(out, "  \"images\": [");
        for (size_t i = 0; i < jsonImages.size(); ++i) fprintf(out, "%s\n    %s", i ? "," : "", jsonImages[i].c_str());
        fprintf(out, "\n  ]\n}\n");
    }
    return allOk ? kExitOk : kExitFailure;
}

}  // namespace

const Command kDetectCommand = {kName, "find faces (or other objects) in images and draw the boxes", kHelp,
                                run_detect};

}  // namespace vo::cli
