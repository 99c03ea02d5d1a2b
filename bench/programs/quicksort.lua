local function quicksort(a, low, high)
  if low >= high then return end
  local i, j, pivot = low, high, a[(low + high) // 2]
  while i <= j do
    while a[i] < pivot do i = i + 1 end
    while a[j] > pivot do j = j - 1 end
    if i <= j then
      a[i], a[j] = a[j], a[i]
      i = i + 1
      j = j - 1
    end
  end
  quicksort(a, low, j)
  quicksort(a, i, high)
end

local n, seed, list = math.tointeger(arg[1]), 42, {}
for i = 1, n do
  seed = (seed * 3877 + 29573) % 139968
  list[i] = seed
end
quicksort(list, 1, n)
local check = 0
for i = 1, n do check = (check * 7 + list[i]) % 1000003 end
print(list[1] .. " " .. list[n] .. " " .. check)
