// A child built with AddressSanitizer that ends with exit code 7. Its leak
// check runs at exit and refuses to run in a traced process (exit code 1
// instead of 7), so the code only arrives intact when the parent's wait
// leaves the child untouched.
int main() {
    return 7;
}
