// File associations.
