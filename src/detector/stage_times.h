// Per-stage timing of the in-memory detector, for tools that profile it.
// Internal and unexported: when no record is installed (the normal case)
// the detector reads one thread-local pointer per stage and nothing else.
#ifndef VONET_DETECTOR_STAGE_TIMES_H
#define VONET_DETECTOR_STAGE_TIMES_H

#include <chrono>
#include <cstdint>

namespace vo {

// Accumulated over every detection run on this thread while installed;
// the caller zeroes it when it wants a fresh measurement.
struct DetectStageTimes {
    double pyramid;  // seconds: working copy, pyramid levels, window patches
    double anet;     // first stage over every window, and its compaction
    double bnet;     // second stage over the survivors, and its compaction
    double cnet;     // third stage: re-crops from the image, scoring
    double merge;    // back to image coordinates, overlap merge, result array
    int64_t runs;    // detections that reached the first stage
    int64_t windows;     // windows scored by the first stage
    int64_t afterAnet;   // boxes left after each stage
    int64_t afterBnet;
    int64_t afterCnet;
    int64_t objects;  // after the merge
};

// The record the detector fills on this thread; null (the default) turns
// timing off. Returns the previous one.
DetectStageTimes* set_detect_stage_times(DetectStageTimes* times);
DetectStageTimes* detect_stage_times();

// Adds the time since the previous lap to one field; does nothing, and
// reads no clock, when no record is installed.
class StageClock {
public:
    StageClock() : times_(detect_stage_times()) {
        if (times_) last_ = std::chrono::steady_clock::now();
    }
    DetectStageTimes* times() const { return times_; }
    void lap(double DetectStageTimes::*field) {
        if (!times_) return;
        const std::chrono::steady_clock::time_point now = std::chrono::steady_clock::now();
        times_->*field += std::chrono::duration<double>(now - last_).count();
        last_ = now;
    }
    // Starts the next lap here: the time since the previous one belongs to
    // a stage timed elsewhere.
    void restart() {
        if (times_) last_ = std::chrono::steady_clock::now();
    }
    void count(int64_t DetectStageTimes::*field, int64_t n) {
        if (times_) times_->*field += n;
    }

private:
    DetectStageTimes* times_;
    std::chrono::steady_clock::time_point last_;
};

}  // namespace vo

#endif
