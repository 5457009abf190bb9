"""Serves an MP4 file with H.264 at rtsp://127.0.0.1:PORT/stream, from its begin for each client. Prints PORT when it listens."""
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402

Gst.init(None)
server = GstRtspServer.RTSPServer(address="127.0.0.1", service="0")
factory = GstRtspServer.RTSPMediaFactory()
factory.set_launch(f"( filesrc location={sys.argv[1]} ! qtdemux ! rtph264pay name=pay0 pt=96 )")
server.get_mount_points().add_factory("/stream", factory)
server.attach(None)
print(server.get_bound_port(), flush=True)
GLib.MainLoop().run()
