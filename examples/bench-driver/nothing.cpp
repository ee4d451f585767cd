// Deliberately empty: linking to the library is all that the bench driver needs.
