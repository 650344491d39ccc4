"""What packaging/generate.py is made of: the programs as they describe themselves, manual pages, completions."""

GENERATED = "Made by packaging/generate.py: change what it is made from."
