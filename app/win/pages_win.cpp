// The pages with native controls (being built).
