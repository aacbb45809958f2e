# The warnings that every target of this project is compiled with, and without which none
# should be: the tree stays free of them under g++ 12 and clang 14.
set(MLNN_WARNINGS -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
