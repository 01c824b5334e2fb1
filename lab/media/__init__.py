"""The content that stations send: caption files, caption text, packets of Opus, the clips."""
