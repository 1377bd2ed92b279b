#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""GStreamer's RTSP server with the KLV track of a transport stream, at rtsp://127.0.0.1:PORT/live.

It runs with the python3 of Debian, which has GStreamer's modules. It writes "ready" once it listens."""
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402  the versions come first

Gst.init(None)
server = GstRtspServer.RTSPServer()
server.set_service(sys.argv[1])
factory = GstRtspServer.RTSPMediaFactory()
factory.set_launch(f"( filesrc location={sys.argv[2]} ! tsdemux ! queue ! meta/x-klv ! rtpklvpay name=pay0 pt=96 )")
server.get_mount_points().add_factory("/live", factory)
if server.attach(None) == 0:
    sys.exit(f"cannot listen on port {sys.argv[1]}")
print("ready", flush=True)
GLib.MainLoop().run()
