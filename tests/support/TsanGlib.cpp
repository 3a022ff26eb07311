// Nothing yet.
