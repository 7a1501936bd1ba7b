"""Programs of Debian's that fetch a stream as weir does, where they are installed."""

import shutil

# The command of each, for the URL of a master playlist; the media goes to its standard output.
COMMANDS = {
    "gst-launch-1.0": lambda url: ["gst-launch-1.0", "-q", "souphttpsrc", f"location={url}", "!",
                                   "hlsdemux", "!", "fdsink", "fd=1"],
    "ffmpeg": lambda url: ["ffmpeg", "-v", "fatal", "-i", url, "-c", "copy", "-f", "mpegts", "pipe:1"],
    "streamlink": lambda url: ["streamlink", "--quiet", "--stdout", f"hls://{url}", "best"],
}
PEERS = {name: command for name, command in COMMANDS.items() if shutil.which(name)}
