// An empty platform.
