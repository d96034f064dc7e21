# Prints the operations a public header declares for its users: functions, constructors and
# methods outside private sections, one name per line.
/^[ \t]*\/\// { next }
/^[ \t]*#/ { next }
/^(class|struct) / || /^[ \t]*(public|protected):/ { hidden = 0 }
/^[ \t]*private:/ { hidden = 1; next }
hidden { next }
{
    line = $0
    sub(/\/\/.*/, "", line)
    sub(/\) : .*/, ")", line)            # member initialisers
    sub(/\{[^}]*\}/, "", line)            # inline bodies
    while (match(line, /[A-Za-z_~][A-Za-z0-9_]*[ \t]*\(/)) {
        name = substr(line, RSTART, RLENGTH)
        sub(/[ \t]*\($/, "", name)
        line = substr(line, RSTART + RLENGTH)
        if (name !~ /^(LUMOFRAMEKIT_API|RIGUTIL_API|sizeof|decltype|static_cast|if|return|operator|noexcept)$/ && name !~ /^~/)
            print name
    }
}
