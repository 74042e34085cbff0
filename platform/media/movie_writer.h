#pragma once

// QuickTime movies from camera samples, written through GStreamer:
//
//   appsrc ! videoconvert ! capsfilter ! [encoder ! capsfilter !] qtmux ! filesink
//
// By default (MovieVideoCodec::Raw) frames are stored as delivered, never through a codec.
// QuickTime keeps raw video only as 2vuy (8-bit 4:2:2, GStreamer's UYVY), RGB or v210, so the
// converter only repacks:
//  - 420f and 420v (NV12) frames become UYVY: every luma sample as delivered, each chroma pair
//    written on both rows it covers. Nothing captured is lost: reading the chroma of one of the
//    two rows gives back the delivered frame exactly.
//  - BGRA frames become RGB: colours as delivered, alpha dropped (camera frames are opaque).
//
// Time: the movie starts at the first frame accepted after the session start; every frame
// keeps its distance from that first frame, in the first frame's timescale (clamped to at most
// 1,000,000 units per second, so one frame may last up to 71 minutes in QuickTime's 32-bit sample
// durations). The last frame lasts its sample's duration when it has one, else as long as the
// step before it (a movie of one frame without a duration: 1/30 s).
//
// Crash safety without reserved room: the movie is written in fragments. The file starts with
// the movie's description (no samples), and every tenth of a second of movie time qtmux appends
// one fragment: a small index of its frames, then the frames. What is on disk is therefore
// always a playable movie, and a process killed while recording leaves one that plays up to
// within a few tenths of a second of the kill (the fragment being gathered, the frame qtmux
// holds back to time it, and the few frames queued in the writer). Finishing adds the
// fragments' random-access table and writes the total duration into the description.
//
// Why fragments and not an index kept at the start of the file and rewritten in place: that
// index needs its room reserved up front, twice over (the copy being rewritten and the last
// good one), for the longest recording expected, which the writer cannot know. An hour's room
// made a 9-frame movie 14 MB larger than its frames and still ended longer recordings with a
// failure. Fragments cost what the movie holds and never run out: at 30 frames a second about
// 50 bytes of index a frame, 0.1 % of even a 320x240 frame (a 9-frame 320x240 movie is 1.3 KB
// larger than its frames, a 3000-frame one 140 KB). A tenth of a second keeps the part a kill
// loses short, writes the first fragment after a handful of frames (a kill before it leaves a
// movie without frames) and keeps only a few frames in qtmux's memory. Readers that know
// fragmented QuickTime and MP4 files (GStreamer's qtdemux, FFmpeg, AVFoundation) play the
// movie as one.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "kwqimage/SampleBuffer.h"

namespace kwq::platform {

/// Writer states, numbered as the platform numbers them.
enum class MovieWriterStatus : int64_t { Unknown = 0, Writing = 1, Completed = 2, Failed = 3 };

/// Container formats a MovieWriter can write.
enum class MovieFileType { QuickTimeMovie };

/// How a MovieWriterInput stores its frames.
///  - Raw: repacked as described above, nothing lost, about 55 MB/s at 1280x720 and 30 fps.
///  - H264Lossless: H.264 (x264) in lossless mode (quantiser 0, High 4:4:4 Predictive profile),
///    420f/420v as 4:2:0 as delivered, decoding to the delivered pixels; BGRA as 4:4:4 YUV
///    (BT.601, which rounds). About a ninth of the raw size for camera pictures, at about 5 ms
///    of one core a 1280x720 frame.
/// Encoded movies keep the fragments: x264 runs without look-ahead, B-frames or frame
/// threads, so frames are not held back, and starts a key frame every three frames (every
/// fragment at 30 fps), so each fragment decodes on its own.
enum class MovieVideoCodec { Raw, H264Lossless };

struct MovieWriterCore;

/// The video input of a MovieWriter: takes camera samples in time order and queues them for
/// the writer's streaming thread.
///
/// Created without output settings: samples are stored as delivered (see the file comment).
/// Every method may be called from any thread; appends are meant to come from one thread.
class MovieWriterInput {
 public:
  /// A video input that is not yet attached to a writer, storing its frames with `codec`.
  static std::shared_ptr<MovieWriterInput> videoInput(MovieVideoCodec codec = MovieVideoCodec::Raw);
  MovieVideoCodec codec() const;

  /// Marks the input as fed in real time (a camera): the writer then keeps its queue short, a
  /// few frames, so that a crash loses little. Otherwise the queue holds 16 frames. Takes
  /// effect when the writer starts.
  void setExpectsMediaDataInRealTime(bool realTime);
  bool expectsMediaDataInRealTime() const;

  /// False only while the writer is writing, the input is not finished and the queue is full;
  /// true in every other state, so that a caller waiting for readiness never waits forever (an
  /// append then reports what is wrong).
  bool isReadyForMoreMediaData() const;

  /// Copies the sample's pixels into the writer's queue. False, with the reason in the writer's
  /// error(), when the input is not attached, the writer is not writing or has no session, the
  /// input is finished, the sample is null, not ready or has no valid time stamp, its time is
  /// before the session start or not after the previous frame's, its format is not 420f, 420v
  /// or BGRA, its size is outside 16..16384 pixels per side or differs from the first frame's
  /// (the first accepted frame fixes format and size), or far more was appended than
  /// isReadyForMoreMediaData() allowed. A refused sample never changes the writer's status.
  bool appendSampleBuffer(const SampleBuffer& sample);

  /// No more samples will come: later appends are refused.
  void markAsFinished();

  struct State;

 private:
  explicit MovieWriterInput(std::shared_ptr<State> d) : d_(std::move(d)) {}
  std::shared_ptr<State> d_;
  friend class MovieWriter;
};

/// Writes one movie file from one video input.
///
/// States: Unknown after create(); Writing after a successful startWriting(); Failed when the
/// file cannot be written or the pipeline reports an error; Completed when finishWriting() has
/// written the final index. Every method may be called from any thread. Destroying a writer that is
/// still writing stops the pipeline and leaves the file with the fragments written so far.
class MovieWriter {
 public:
  /// A writer for the "file://" URL; null (with the reason in `error` when given) when the URL
  /// is not a local file URL or GStreamer is unavailable. The file is created by startWriting().
  static std::shared_ptr<MovieWriter> create(const std::string& fileURL, MovieFileType fileType,
                                             std::string* error = nullptr);
  ~MovieWriter();
  MovieWriter(const MovieWriter&) = delete;
  MovieWriter& operator=(const MovieWriter&) = delete;

  /// Attaches the input. False when the writer already has one, has started, or the input
  /// belongs to another writer.
  bool addInput(const std::shared_ptr<MovieWriterInput>& input);

  /// Creates the file and starts the pipeline: status Writing, or Failed with the reason in
  /// error() (the file exists already, its folder is missing or not writable, no input). False
  /// when not Writing afterwards; only the first call does anything.
  bool startWriting();

  /// Sets the source time at which the movie's time line begins; frames before it are
  /// refused. Only the first call with a valid time while Writing counts.
  void startSessionAtSourceTime(MediaTime time);

  MovieWriterStatus status() const;

  /// Readable description of what went wrong: the failure when the status is Failed, else the
  /// reason the most recent sample was refused; empty when nothing went wrong.
  std::string error() const;

  /// Ends the movie: the queued frames are written, then the final index, then the pipeline
  /// stops and `completionHandler` runs once, on a thread the writer owns (never the caller's).
  /// The status is then Completed, or Failed with the reason. A writer that is not writing
  /// (never started, failed, already finishing) calls the handler all the same, on its own
  /// thread, without changing its status.
  void finishWriting(std::function<void()> completionHandler);

  /// The URL the writer was created for.
  const std::string& outputURL() const;

 private:
  explicit MovieWriter(std::shared_ptr<MovieWriterCore> core) : core_(std::move(core)) {}
  std::shared_ptr<MovieWriterCore> core_;
};

}  // namespace kwq::platform
