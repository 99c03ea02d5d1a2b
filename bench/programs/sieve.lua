local n, count, last, prime = math.tointeger(arg[1]), 0, 0, {}
for i = 2, n do prime[i] = true end
for i = 2, n do
  if prime[i] then
    count = count + 1
    last = i
    for j = i * i, n, i do prime[j] = false end
  end
end
print(count .. " " .. last)
