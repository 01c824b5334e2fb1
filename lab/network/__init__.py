"""One relay or several joined ones with everything around them, ready in two lines."""
