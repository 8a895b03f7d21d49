"""Real clips: QuickTime files with a timecode track and a creation time, as a recorder would have recorded them."""

import shutil
import subprocess

from .common import Failure

# A few seconds of a clip take a fraction of a second on a machine that has nothing else to do.
SECONDS_A_CLIP = 120

PRORES = ["-c:v", "prores_ks", "-profile:v", "2", "-pix_fmt", "yuv422p10le"], "320x180"
# DNxHD knows fixed sizes and rates only; this is its smallest pair at 25 frames a second.
DNXHD = ["-c:v", "dnxhd", "-b:v", "60M", "-pix_fmt", "yuv422p"], "1280x720"

FRAMES_A_SECOND = 25


def make(path, codec, seconds, timecode, created):
    """Makes a clip at `path`, in one go: one of the two codecs, a length in seconds, the timecode of its first frame
    ("10:00:00:00") and the time of its creation ("2026-03-01T10:00:00Z")."""
    if not shutil.which("ffmpeg"):
        raise Failure("this machine has no ffmpeg; install the package ffmpeg")
    encoding, size = codec
    temporary = path.with_name(f".{path.name}")
    command = [
        "ffmpeg", "-nostdin", "-loglevel", "error", "-y",
        "-f", "lavfi", "-i", f"testsrc2=size={size}:rate={FRAMES_A_SECOND}:duration={seconds}",
        "-f", "lavfi", "-i", f"sine=frequency=440:sample_rate=48000:duration={seconds}",
        *encoding, "-c:a", "pcm_s16le", "-shortest", "-timecode", timecode, "-metadata", f"creation_time={created}",
        "-f", "mov", str(temporary),
    ]
    try:
        result = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True,
                                timeout=SECONDS_A_CLIP + 5 * seconds)
        if result.returncode != 0:
            reason = result.stderr.strip().splitlines() or ["no reason given"]
            raise Failure(f"ffmpeg cannot make {path.name}: {reason[-1]}")
        temporary.replace(path)
    except subprocess.TimeoutExpired:
        raise Failure(f"ffmpeg did not make {path.name} in time") from None
    finally:
        temporary.unlink(missing_ok=True)
