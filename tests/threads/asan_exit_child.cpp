// Exits 7; built with AddressSanitizer (see ProcessWait tests).
int main() {
    return 7;
}
