# Doxygen input filter: the public headers write their documentation as
# plain // comments. This turns them into Doxygen comments while Doxygen
# reads a header (the files themselves stay as they are; line numbers too).
#
# The comment that opens a header documents the file.
1s|^// (.*)$|/// \1 \\file|
# A comment on lines of its own documents the declaration that follows it.
s|^([[:space:]]*)//( \|$)|\1///\2|
# A comment behind an enumerator documents that enumerator.
s|^([[:space:]]*[A-Za-z_][A-Za-z0-9_]*[[:space:]]*=[^/]*,?[[:space:]]*)// |\1///< |
# The labelled lines that close a class comment become a list.
s@^([[:space:]]*)/// (Thread safety|Lifetime|Errors):@\1/// - \2:@
