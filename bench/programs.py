"""Debian's programs that fetch a stream as weir does, if installed."""

import shutil

# The command of each for a master playlist; the media goes to its standard output.
COMMANDS = {
    "gst-launch-1.0": "gst-launch-1.0 -q souphttpsrc location={} ! hlsdemux ! fdsink fd=1",
    "ffmpeg": "ffmpeg -nostdin -v fatal -i {} -c copy -f mpegts pipe:1",
    "streamlink": "streamlink --quiet --stdout hls://{} best",
}
PEERS = {name: command for name, command in COMMANDS.items() if shutil.which(name)}
