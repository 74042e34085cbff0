#pragma once

/// @file
/// The camera data recorder: camera frames into numbered QuickTime movies for diagnosis, and
/// movies and images into the user's photo library.

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "kwqimage/Export.h"
#include "kwqimage/Image.h"
#include "kwqimage/SampleBuffer.h"

namespace kwq {

/// How the recorder stores camera frames.
///  - Raw, the default: uncompressed, as the file description below says (about 55 MB a
///    second at 1280x720 and 30 fps).
///  - H264Lossless: lossless H.264 (x264): 420f/420v frames decode to the delivered frames
///    exactly; BGRA frames are stored as 4:4:4 YUV (BT.601, which rounds). For the camera's
///    pictures about a ninth of the raw size, at about 5 ms of one core a 1280x720 frame.
///    Movies keep the crash safety of raw ones. Needs GStreamer's x264 plugin
///    (gst-plugins-ugly); without it the writer fails at the first frame and logs why.
enum class MovieCodec { Raw, H264Lossless };

/// Records the camera frames the capture engine sees into "FrontCardData<n>.mov" in the folder
/// "<documents>//SavedCameraData" (the doubled slash is part of the path), and saves each movie
/// to the photo library when recording stops. One recorder per process.
///
/// Files (with the default codec, MovieCodec::Raw): movies keep every frame as delivered (420f/420v
/// as 8-bit 4:2:2, BGRA as RGB without alpha, never a lossy codec), time stamps from the frames,
/// the movie starting at the first recorded frame. A process killed while recording leaves a movie
/// that plays up to within a second of the kill. The photo library is the pictures folder (XDG, or
/// the override below); it never has a file replaced (see photoLibraryDirectory()). A finished
/// movie is moved there: renamed when the pictures folder is on the same file system (no space
/// needed, so a movie recorded onto a full disk is kept up to where the disk filled), copied
/// and then removed otherwise. A movie the photo library could not take stays in the folder
/// for the rest of the process.
///
/// States: idle → recording (startSavingCameraData) → writing (first appended frame) →
/// finishing (stopSavingCameraData) → idle once the movie is finished and handed to the photo
/// library; when the photo library has saved it, the folder is emptied and the counter
/// advanced. A new recording may start as soon as the state is idle, before that save has
/// completed: the movies on their way are spared by the emptying and counted by the next
/// file's number, so back-to-back recordings each leave their own movie. A stop before the first
/// frame leaves the recorder recording (isRecording() stays true and later starts return false)
/// until a stop finds a writing movie or the host calls setIsRecording(false); this is the
/// recorder's defined behaviour, kept on purpose.
///
/// Threads: start and stop come from the host's thread, appends from the capture engine's
/// frame queue; the finish runs on the movie writer's thread and the save completions on the
/// photo library's thread. Any thread may call any method: the fields are read and written
/// under an internal lock that is never held while waiting, so the engine's frame queue and the
/// host never block each other beyond a field copy. Exceptions never leave these methods.
class KWQ_EXPORT KWQCameraRollHelper {
 public:
  /// The process's recorder, created on first use (thread-safe, once only); never destroyed.
  static KWQCameraRollHelper& getInstance();

  KWQCameraRollHelper(const KWQCameraRollHelper&) = delete;
  KWQCameraRollHelper& operator=(const KWQCameraRollHelper&) = delete;

  /// Starts a recording into getCameraDataFilePath(): empties the folder, creates the movie
  /// writer (writing begins with the first frame). False, changing nothing, while recording.
  /// Movies a killed process left in the folder are not emptied away but saved to the photo
  /// library as "Recovered-<name>".
  bool startSavingCameraData();

  /// Appends one frame; true when the writer took it. False when not recording, the sample is
  /// null, its data is not ready or it has no valid time stamp (none of which starts the
  /// writer), the writer has failed (logged: "Record Camera Data: An error has occured
  /// recording the camera. <error>"), or the writer refuses the frame (logged: "Record Camera
  /// Data: Unable to append video sample to writer: <status>, <error>"; refused are frames
  /// whose format (420f, 420v, BGRA) or size (16..16384, that of the first frame) does not
  /// fit, and frames not later than the previous one). The first frame starts the writer
  /// and the movie's time line. While the writer's queue is full this waits, in steps of 0.1 s
  /// without limit, as the capture engine's frame queue is meant to (late frames are dropped
  /// by the capture output meanwhile); the writer always drains or fails, so this ends.
  /// Thread: the capture engine's frame queue.
  bool appendCameraData(const SampleBuffer& sampleBuffer);

  /// Stops the recording: the value of isRecording() on entry. A writing movie is finished on
  /// the writer's thread, then saved to the photo library, then isRecording() turns false. A
  /// failed movie is handed on the same way, as far as it was written.
  bool stopSavingCameraData();

  /// Saves a copy of the image to the photo library as PNG; a null image does nothing. The
  /// description is passed to imageDidFinishSaving() and not otherwise used.
  void saveImageToCameraRoll(const Image& image, std::string imageDescription);

  /// "<documents>//SavedCameraData", computed once and then cached for the process's life
  /// (later changes of the documents folder do not move the recorder). Never empty here: the
  /// documents folder always resolves, and the first lookup creates it (owner-only) on an
  /// account that has none, so the recorder's folder can be created inside.
  std::string getCameraDataFolderPath();
  /// The file URL of "<folder>/FrontCardData<n>.mov", n being the counter plus the finished movies
  /// still on their way to the photo library; empty when the folder is unknown.
  std::string getCameraDataFilePath();
  /// Removes the folder with its content and creates it again (its parent must exist). Movies on
  /// their way to the photo library, movies it could not take and the movie being recorded are
  /// spared: with any of them there, only the rest of the folder's content goes. Each
  /// failure is logged: "Record Camera Data: Error removing folder at path: <path>, <reason>"
  /// (also when it did not exist) and "Record Camera Data: Error creating folder at path:
  /// <path>, <reason>".
  void deleteAndRecreateCameraDataFolder();

  /// Completion of a movie's save to the photo library, whatever the error: empties the folder
  /// and advances the counter. A movie the photo library could not take is kept, not emptied
  /// away. Called on the photo library's thread; `error` is the photo
  /// library's (not examined); `contextInfo` is empty (none).
  void videoDidFinishSaving(const std::string& videoPath, const std::optional<std::string>& error,
                            const std::string& contextInfo);
  /// Completion of an image's save to the photo library: does nothing. `contextInfo` is the
  /// description given to saveImageToCameraRoll().
  void imageDidFinishSaving(const Image& image, const std::optional<std::string>& error,
                            const std::string& contextInfo);

  ///@{
  /// The codec of the movies started from now on; Raw (uncompressed) unless set. A recording in
  /// progress keeps the codec it started with.
  void setVideoCodec(MovieCodec codec);
  MovieCodec videoCodec() const;
  ///@}

  ///@{
  /// A recording is in progress.
  bool isRecording() const;
  void setIsRecording(bool isRecording);
  ///@}
  ///@{
  /// Number of the next movie file; advanced after each movie is saved.
  uint32_t cameraDataCounter() const;
  void setCameraDataCounter(uint32_t cameraDataCounter);
  ///@}
  // The movie writer and its input are platform objects without accessors here.
  ///@{
  /// File URL of the current (or last) movie; empty before the first start.
  std::string videoFilePath() const;
  void setVideoFilePath(std::string videoFilePath);
  ///@}

  /// Waits until every movie finish and photo-library save started so far has completed
  /// (completion methods run, isRecording() false after a finished movie); true when done
  /// within `timeout`. For hosts that must not start the next recording or quit while a
  /// save is on its way. Thread: any but the writer's and the photo library's.
  bool waitForPendingSaves(std::chrono::milliseconds timeout);

  /// The photo library's folder: the override when set, else the XDG pictures folder, else
  /// "$HOME/Pictures"; created (owner-only, with missing parents) when missing.
  static std::string photoLibraryDirectory();
  /// Makes saves go to `path`; an empty path returns to the XDG folder. Thread: any; saves
  /// already running keep their folder.
  static void setPhotoLibraryDirectory(const std::string& path);

  struct Impl;

 private:
  KWQCameraRollHelper();
  // Hands movies another process left in the folder (killed while recording or saving) to the
  // photo library as "Recovered-<name>", so that a start saves them rather than empties them
  // away.
  void recoverLeftoverMovies();
  ~KWQCameraRollHelper();
  std::unique_ptr<Impl> d_;
};

}  // namespace kwq
