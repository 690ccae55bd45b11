# Writes the header that holds the build date, in the form of an Internet message date in UTC.
# SOURCE_DATE_EPOCH, when set, fixes it, so that builds can be reproduced. Runs when a source of
# the library has changed.
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE "${OUTPUT}" "#define KEL_BUILD_DATE \"${date}\"\n")
