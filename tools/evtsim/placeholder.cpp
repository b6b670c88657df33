int evtsimPlaceholder() { return 0; }
