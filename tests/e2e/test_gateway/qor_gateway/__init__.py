"""A gateway for the window tests: it logs every request and lets a test drive its pages."""
