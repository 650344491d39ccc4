"""What the program mkpack is made of: publishing packs, and verifying what is published."""
