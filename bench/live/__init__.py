"""A live channel, players that verify it, and the load and soak runs of weir."""
