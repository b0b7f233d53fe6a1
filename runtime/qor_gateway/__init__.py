"""The reference QOR Velmora gateway: readiness probe, web UI and a notes API on loopback."""
