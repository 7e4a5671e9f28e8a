// An application that forgot its application object: there is the library's main() and nothing
// else.
