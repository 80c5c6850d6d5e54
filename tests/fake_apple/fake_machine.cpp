// The machine the fakes answer from, where its displays' type is complete.
#include <CoreGraphics/CoreGraphics.h>

fake::machine fake::installed;
