"""The real relay in a folder of its own: its configuration, its process, its log."""
