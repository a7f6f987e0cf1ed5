// Placeholder: tests not yet written.
