// Placeholder until this unit lands.
