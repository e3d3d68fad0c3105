"""What demo.py is made of."""
