# Empties a folder (cmake -DFOLDER=... -P ResetFolder.cmake).
file(REMOVE_RECURSE ${FOLDER})
file(MAKE_DIRECTORY ${FOLDER})
