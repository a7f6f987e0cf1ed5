// Placeholder: not yet written.
