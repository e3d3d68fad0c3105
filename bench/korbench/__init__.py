"""What script/bench measures, and how."""
