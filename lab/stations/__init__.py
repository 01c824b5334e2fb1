"""The clients of a relay: captioners, encoders, monitors, audio sources and receivers."""
