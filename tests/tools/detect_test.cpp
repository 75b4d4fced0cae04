// vonet detect with the bundled face cascade, run as a user runs it: the
// faces of the two photos, the output formats, the annotated PNG, folders
// with bad files, and the command line's errors.
#include <gtest/gtest.h>
#include <vonet/vonet.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "run_tool.h"
#include "test_util.h"

#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#include "common/stb_private.h"

namespace {

namespace fs = std::filesystem;
using namespace vo_test;

const std::string kPhotos = std::string(VONET_TEST_DATA_DIR) + "/photos/";
const std::string kModels = VONET_MODELS_DIR;

// A small strict JSON reader: enough to prove that standard output is one
// well-formed document and to read it.
struct Json {
    enum Type { kNull, kBool, kNumber, kString, kArray, kObject } type = kNull;
    double number = 0;
    std::string text;
    std::vector<Json> items;
    std::map<std::string, Json> fields;

    const Json& operator[](const std::string& key) const {
        static const Json missing;
        auto it = fields.find(key);
        return it == fields.end() ? missing : it->second;
    }
    const Json& operator[](size_t i) const { return items.at(i); }
    bool has(const std::string& key) const { return fields.count(key) > 0; }
};

// Strict: one value, no trailing commas, no repeated keys, nothing after.
struct JsonParser {
    const std::string& s;
    size_t i = 0;

    // Skips blanks, then takes `c` if it comes next.
    bool at(char c) {
        while (i < s.size() && isspace(static_cast<unsigned char>(s[i]))) ++i;
        return i < s.size() && s[i] == c && (++i, true);
    }
    bool string(std::string* out) {
        if (!at('"')) return false;
        for (; i < s.size(); ++i) {
            const char c = s[i];
            if (c == '"') return ++i, true;
            if (static_cast<unsigned char>(c) < 0x20) return false;
            if (c != '\\') {
                *out += c;
            } else if (++i < s.size() && s[i] == 'u' && i + 4 < s.size()) {
                *out += char(std::stoi(s.substr(i + 1, 4), nullptr, 16));
                i += 4;
            } else {
                const std::string from = "\"\\/bfnrt", to = "\"\\/\b\f\n\r\t";
                const size_t k = i < s.size() ? from.find(s[i]) : std::string::npos;
                if (k == std::string::npos) return false;
                *out += to[k];
            }
        }
        return false;
    }
    // Comma-separated items up to `close`.
    template <class Item>
    bool list(char close, Item item) {
        if (at(close)) return true;
        do {
            if (!item()) return false;
        } while (at(','));
        return at(close);
    }
    bool value(Json* out) {
        if (at('{')) {
            out->type = Json::kObject;
            return list('}', [&] {
                std::string key;
                return string(&key) && at(':') && !out->fields.count(key) && value(&out->fields[key]);
            });
        }
        if (at('[')) {
            out->type = Json::kArray;
            return list(']', [&] { return value(&out->items.emplace_back()); });
        }
        if (i < s.size() && s[i] == '"') return out->type = Json::kString, string(&out->text);
        for (const char* word : {"true", "false", "null"})
            if (s.compare(i, strlen(word), word) == 0) {
                i += strlen(word);
                out->type = word[0] == 'n' ? Json::kNull : Json::kBool;
                out->number = word[0] == 't';
                return true;
            }
        const char* start = s.c_str() + i;
        char* end = nullptr;
        out->number = strtod(start, &end);
        i += size_t(end - start);
        return end != start && (out->type = Json::kNumber, true);
    }
};

Json parse_json(const std::string& text) {
    Json doc;
    JsonParser p{text};
    const bool ok = p.value(&doc) && !p.at(' ') && p.i == text.size();  // at(' ') skips trailing blanks
    EXPECT_TRUE(ok) << "not one JSON document:\n" << text;
    return doc;
}

struct Box {
    double x, y, width, height;
};

double iou(const Box& a, const Box& b) {
    const double w = std::min(a.x + a.width, b.x + b.width) - std::max(a.x, b.x);
    const double h = std::min(a.y + a.height, b.y + b.height) - std::max(a.y, b.y);
    if (w <= 0 || h <= 0) return 0;
    const double inter = w * h;
    return inter / (a.width * a.height + b.width * b.height - inter);
}

std::vector<Box> boxes_of(const Json& image) {
    std::vector<Box> boxes;
    for (const Json& o : image["objects"].items)
        boxes.push_back({o["x"].number, o["y"].number, o["width"].number, o["height"].number});
    return boxes;
}

// Every expected face matched by exactly one box with IoU >= 0.5, and no
// other box.
void expect_faces(const Json& image, const std::vector<Box>& expected) {
    const std::vector<Box> found = boxes_of(image);
    EXPECT_EQ(found.size(), expected.size()) << image["path"].text;
    for (const Box& e : expected) {
        int matches = 0;
        for (const Box& f : found) matches += iou(e, f) >= 0.5;
        EXPECT_EQ(matches, 1) << image["path"].text << ": face near (" << e.x << ", " << e.y << ")";
    }
}

struct Pixels {
    int width = 0, height = 0, channels = 0;
    std::vector<uint8_t> data;
};

Pixels decode(const std::string& path) {
    Pixels p;
    uint8_t* d = stbi_load(path.c_str(), &p.width, &p.height, &p.channels, 0);
    EXPECT_NE(d, nullptr) << path;
    if (d) {
        p.data.assign(d, d + size_t(p.width) * p.height * p.channels);
        stbi_image_free(d);
    }
    return p;
}

// Every face of the two photos and nothing else. The boxes are the
// in-memory detector's on the grey image the file-level entry makes:
// normalised by filter_by_size they are that entry's result. A grey file
// holding that grey image gives the very same objects.
TEST(VonetDetect, FindsEveryFaceOnTheFileLevelEntrysGreyImage) {
    TempDir dir;
    const char* const names[] = {"test1.jpg", "test2.jpg"};
    Result r = vonet(dir, {"detect", kPhotos + names[0], kPhotos + names[1], "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json doc = parse_json(r.out);
    EXPECT_EQ(doc["kind"].text, "face");
    EXPECT_EQ(doc["settings"]["levels"].number, 14);
    EXPECT_FLOAT_EQ(float(doc["settings"]["max"].number), 1.0f);
    ASSERT_EQ(doc["images"].items.size(), 2u);
    expect_faces(doc["images"][0], {{90, 17, 61, 85}, {297, 88, 64, 79}});
    expect_faces(doc["images"][1], {{183, 70, 165, 202}});
    for (size_t k = 0; k < 2; ++k) {
        const char* name = names[k];
        const std::string path = kPhotos + name;
        const Json& colour = doc["images"][k];
        EXPECT_EQ(colour["channels"].number, 3);
        for (const Json& o : colour["objects"].items) {
            EXPECT_GT(o["conf"].number, 0.9);  // cnet's face threshold
            EXPECT_EQ(o["label"].number, 0);
        }
        std::vector<VRect> fromTool;
        for (const Box& b : boxes_of(colour))
            fromTool.push_back(VRect{int32_t(b.x), int32_t(b.y), int32_t(b.width), int32_t(b.height)});
        ASSERT_FALSE(fromTool.empty());
        fromTool.resize(size_t(filter_by_size(fromTool.data(), int(fromTool.size()))));

        VoDetector* manager = nullptr;
        ASSERT_EQ(load_object_manager(kModels.c_str(), "face", &manager), 0);
        set_detect_params(manager, 0.03f, 1.0f, 0.3f, 14);
        VRect* rects = nullptr;
        int num = -1;
        ASSERT_EQ(detect_objects(manager, path.c_str(), VRect{0, 0, 0, 0}, &rects, &num), 0);
        std::vector<VRect> fromFile(rects, rects + std::max(num, 0));
        free(rects);
        release_object_manager(&manager);
        auto key = [](const VRect& a, const VRect& b) {
            return std::tie(a.x, a.y, a.width, a.height) < std::tie(b.x, b.y, b.width, b.height);
        };
        std::sort(fromTool.begin(), fromTool.end(), key);
        std::sort(fromFile.begin(), fromFile.end(), key);
        ASSERT_EQ(fromTool.size(), fromFile.size()) << name;
        EXPECT_EQ(memcmp(fromTool.data(), fromFile.data(), fromTool.size() * sizeof(VRect)), 0) << name;

        // The grey image: R, G, B reordered to B, G, R, then bgr2gray.
        Pixels rgb = decode(path);
        ASSERT_EQ(rgb.channels, 3);
        std::vector<uint8_t> bgr(rgb.data.size()), grey(size_t(rgb.width) * rgb.height);
        for (size_t i = 0; i < grey.size(); ++i) {
            bgr[3 * i] = rgb.data[3 * i + 2];
            bgr[3 * i + 1] = rgb.data[3 * i + 1];
            bgr[3 * i + 2] = rgb.data[3 * i];
        }
        bgr2gray(bgr.data(), rgb.width, rgb.height, 3 * rgb.width, grey.data());
        const std::string pgm = dir.file("grey.pgm");
        vo_test::write_file(pgm, "P5\n" + std::to_string(rgb.width) + " " + std::to_string(rgb.height) + "\n255\n" +
                                     std::string(grey.begin(), grey.end()));
        Result g = vonet(dir, {"detect", pgm, "--json"});
        ASSERT_EQ(g.status, 0) << g.err;
        const Json fromGrey = parse_json(g.out)["images"][0];
        EXPECT_EQ(fromGrey["channels"].number, 1);
        ASSERT_EQ(fromGrey["objects"].items.size(), colour["objects"].items.size()) << name;
        for (size_t i = 0; i < colour["objects"].items.size(); ++i)
            for (const char* field : {"x", "y", "width", "height", "conf"})
                EXPECT_EQ(fromGrey["objects"][i][field].number, colour["objects"][i][field].number) << field;
    }
}

TEST(VonetDetect, PrintsOnlyResultsAndDrawsTheBoxes) {
    TempDir dir;
    const std::string path = kPhotos + "test1.jpg";
    const std::string png = dir.file("faces.png");
    Result r = vonet(dir, {"detect", path, "-o", png});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");  // the classifiers' load messages are held back
    const std::vector<std::string> out = lines(r.out);
    ASSERT_EQ(out.size(), 3u) << r.out;
    EXPECT_EQ(out[0], path + ": 450x344, 2 objects");
    std::vector<Box> boxes;
    double lastConf = 2;
    for (size_t i = 1; i < out.size(); ++i) {
        std::istringstream in(out[i]);
        Box b;
        double conf = -1;
        std::string rest;
        ASSERT_TRUE(in >> b.x >> b.y >> b.width >> b.height >> conf) << out[i];
        EXPECT_FALSE(in >> rest) << out[i];
        EXPECT_LE(conf, lastConf);  // highest confidence first
        lastConf = conf;
        boxes.push_back(b);
    }

    const Pixels original = decode(path);
    const Pixels drawn = decode(png);
    ASSERT_EQ(drawn.channels, 3);
    ASSERT_EQ(drawn.width, original.width);
    ASSERT_EQ(drawn.height, original.height);
    auto pixel = [](const Pixels& p, int x, int y) {
        const uint8_t* q = &p.data[(size_t(y) * p.width + x) * 3];
        return std::vector<int>{q[0], q[1], q[2]};
    };
    for (const Box& b : boxes) {
        const int x = int(b.x), y = int(b.y);
        EXPECT_EQ(pixel(drawn, x + 1, y), (std::vector<int>{0, 255, 0}));
        EXPECT_EQ(pixel(drawn, x, y + int(b.height) - 1), (std::vector<int>{0, 255, 0}));
        // Inside the outline the photo is untouched.
        const int cx = x + int(b.width) / 2, cy = y + int(b.height) / 2;
        EXPECT_EQ(pixel(drawn, cx, cy), pixel(original, cx, cy));
    }
    EXPECT_EQ(pixel(drawn, 0, original.height - 1), pixel(original, 0, original.height - 1));
}

TEST(VonetDetect, FolderIsSearchedImageByImagePastBadFiles) {
    TempDir dir;
    const std::string in = dir.file("in"), out = dir.file("out");
    fs::create_directory(in);
    fs::copy_file(kPhotos + "test2.jpg", in + "/b.jpg");
    vo_test::write_file(in + "/a.jpg", "not a JPEG at all");
    vo_test::write_file(in + "/c.png", "");
    vo_test::write_file(in + "/notes.txt", "skipped: not an image name");
    // A header that claims far more pixels than its file can hold.
    vo_test::write_file(in + "/d.bmp", "BM" + std::string(12, '\0') + std::string("\x28\0\0\0", 4) +
                                           std::string("\xff\xff\x00\x00\xff\xff\x00\x00\x01\x00\x18\x00", 12) +
                                           std::string(24, '\0'));
    Result r = vonet(dir, {"detect", in, "--out-dir", out, "--json"});
    EXPECT_EQ(r.status, 1);
    const Json doc = parse_json(r.out);
    ASSERT_EQ(doc["images"].items.size(), 4u) << r.out;
    const std::vector<std::string> err = lines(r.err);
    ASSERT_EQ(err.size(), 3u) << r.err;
    for (const std::string& line : err) EXPECT_EQ(line.rfind("vonet detect: ", 0), 0u) << line;
    for (size_t i : {0, 2, 3}) {
        EXPECT_TRUE(doc["images"][i].has("error")) << i;
        EXPECT_FALSE(doc["images"][i].has("objects")) << i;
    }
    EXPECT_TRUE(contains(err[0], "a.jpg"));
    EXPECT_TRUE(contains(err[2], "more than the file can hold"));
    const Json& good = doc["images"][1];
    expect_faces(good, {{183, 70, 165, 202}});
    EXPECT_EQ(good["output"].text, out + "/b_face.png");
    EXPECT_TRUE(fs::exists(out + "/b_face.png"));
    EXPECT_FALSE(fs::exists(out + "/a_face.png"));
}

TEST(VonetDetect, BenchTimesEveryStageThroughTheDetector) {
    TempDir dir;
    Result r = vonet(dir, {"detect", kPhotos + "test1.jpg", "--bench", "2", "--json"});
    ASSERT_EQ(r.status, 0) << r.err;
    const Json image = parse_json(r.out)["images"][0];
    const Json& bench = image["bench"];
    EXPECT_EQ(bench["runs"].number, 2);
    EXPECT_LE(bench["min_ms"].number, bench["median_ms"].number);
    EXPECT_LE(bench["median_ms"].number, bench["max_ms"].number);
    ASSERT_EQ(bench["stages"].items.size(), 5u);
    double shares = 0;
    const char* names[] = {"pyramid", "anet", "bnet", "cnet", "merge"};
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(bench["stages"][i]["stage"].text, names[i]);
        EXPECT_GE(bench["stages"][i]["median_ms"].number, 0);
        shares += bench["stages"][i]["share"].number;
    }
    EXPECT_NEAR(shares, 1.0, 1e-3);
    // Counts of one run: each stage keeps part of what it is given.
    EXPECT_GT(bench["windows"].number, bench["after_anet"].number);
    EXPECT_GE(bench["after_anet"].number, bench["after_bnet"].number);
    EXPECT_GE(bench["after_bnet"].number, bench["after_cnet"].number);
    EXPECT_GE(bench["after_cnet"].number, bench["after_merge"].number);
    EXPECT_EQ(bench["after_merge"].number, double(image["objects"].items.size()));

    Result text = vonet(dir, {"detect", kPhotos + "test2.jpg", "--bench", "1"});
    ASSERT_EQ(text.status, 0) << text.err;
    for (const char* part : {"bench: median ", "pyramid and patches", "anet", "cnet", "merge", "windows "})
        EXPECT_TRUE(contains(text.out, part)) << text.out;
}

TEST(VonetDetect, BadRequestsAreOneLineErrors) {
    TempDir dir;
    const std::string photo = kPhotos + "test2.jpg";
    // Only the first stage: the library reports the two missing stages
    // while loading, which must not reach standard output.
    const std::string partial = dir.file("partial");
    fs::create_directory(partial);
    for (const char* f : {"object_face_anet.dat", "object_face_anet_params.dat"})
        fs::copy_file(kModels + "/" + f, partial + "/" + f);
    Result r = vonet(dir, {"detect", photo, "--models", partial, "--json", "--levels", "3"});
    EXPECT_EQ(r.status, 0) << r.err;
    parse_json(r.out);
    EXPECT_FALSE(contains(r.out, "object_face"));

    // A stage whose network is unusable is refused rather than skipped.
    const std::string broken = dir.file("broken");
    fs::create_directory(broken);
    for (const char* role : {"anet", "bnet", "cnet"}) {
        const std::string base = std::string("/object_face_") + role;
        fs::copy_file(kModels + base + "_params.dat", broken + base + "_params.dat");
        fs::copy_file(kModels + base + ".dat", broken + base + ".dat");
    }
    const std::string cnet = vo_test::read_file(kModels + "/object_face_cnet.dat");
    vo_test::write_file(broken + "/object_face_cnet.dat", cnet.substr(0, cnet.size() / 2));

    struct Case {
        std::vector<std::string> args;
        int status;
        std::string message;
    };
    const std::vector<Case> cases = {
        {{photo, "--min", "0"}, 2, "bad value '0' for --min"},
        {{photo, "--max", "nan"}, 2, "bad value 'nan' for --max"},
        {{photo, "--stride", "0.3x"}, 2, "bad value '0.3x' for --stride"},
        {{photo, "--levels", "0"}, 2, "bad value '0' for --levels"},
        {{photo, "--min", "0.5", "--max", "0.1"}, 2, "--min 0.5 is above --max 0.1"},
        {{photo, photo, "-o", dir.file("x.png")}, 2, "-o takes one image"},
        {{photo, "--kind", "a/b"}, 2, "bad kind 'a/b'"},
        {{dir.file("missing.jpg")}, 1, "cannot open image '" + dir.file("missing.jpg") + "': No such file"},
        {{photo, "--models", dir.file("none")}, 1, "is not a folder"},
        {{photo, "--kind", "cat"}, 1, "no models for kind 'cat' found"},
        {{photo, "--models", broken}, 1, "object_face_cnet.dat is missing or unusable"},
        {{photo, "--min", "0.0001"}, 1, "cannot search"},
        {{photo, "-o", photo}, 1, "refusing to write over the input image"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"detect"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        Result e = vonet(dir, args);
        EXPECT_EQ(e.status, c.status) << c.message;
        EXPECT_TRUE(e.out.empty()) << c.message << "\n" << e.out;
        const std::vector<std::string> err = lines(e.err);
        ASSERT_FALSE(err.empty()) << c.message;
        // The library may report a failed file check first; the program's
        // own line is the last.
        if (c.status == 2) {
            EXPECT_EQ(err.size(), 1u) << e.err;
        }
        EXPECT_EQ(err.back().rfind("vonet detect: ", 0), 0u) << err.back();
        EXPECT_TRUE(contains(err.back(), c.message)) << err.back();
    }
}

}  // namespace
